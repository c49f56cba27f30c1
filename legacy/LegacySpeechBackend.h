// Implements the backend with task-based recognition. Keeps the open sessions, the muted sources, and one
// channel per source.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "core/ChannelKey.h"
#include "core/SessionConfiguration.h"
#include "core/SpeechBackend.h"

namespace palaver {

class DictationProbe;
class JSONLineWriter;
class LegacyRecognitionChannel;
struct Platform;

// Main thread only, including its channels. Nothing is locked.
class LegacySpeechBackend final : public SpeechBackend {
 public:
  LegacySpeechBackend(Platform& platform, JSONLineWriter& writer, DictationProbe& dictation);
  ~LegacySpeechBackend() override;

  std::string_view implementationName() const override;
  void emitStatus() override;
  void startSession(std::string_view id, std::string_view locale,
                    std::span<const std::string_view> vocabulary) override;
  void appendAudio(std::string_view sessionId, AudioSource source, std::int64_t sequence, double capturedAt,
                   std::string_view pcmBase64) override;
  void setSuppressed(std::string_view sessionId, AudioSource source, bool suppressed) override;
  void stopSession(std::string_view id) override;
  void stopAll() override;

 private:
  bool isAvailable(std::string_view locale);
  void reportDictationDisabled(const ChannelKey& key);
  void handleDictationDisabled(const ChannelKey& key);
  std::shared_ptr<LegacyRecognitionChannel> makeChannel(const ChannelKey& key,
                                                        const SessionConfiguration& session);

  Platform& platform_;
  JSONLineWriter& writer_;
  DictationProbe& dictation_;
  std::map<std::string, SessionConfiguration, std::less<>> sessions_;
  std::map<ChannelKey, std::shared_ptr<LegacyRecognitionChannel>, ChannelKeyOrder> channels_;
  std::set<ChannelKey, ChannelKeyOrder> suppressed_;
  std::set<ChannelKey, ChannelKeyOrder> dictationNoticeSent_;
  // Channels hold a weak reference to this. It expires when the backend is destroyed.
  std::shared_ptr<LegacySpeechBackend*> self_;
};

}  // namespace palaver
