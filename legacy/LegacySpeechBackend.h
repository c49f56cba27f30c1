// Implements the backend with task-based recognition. Keeps the open sessions, the muted sources, and one
// channel per source.
#pragma once

#include <compare>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

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
  struct SessionConfiguration {
    std::string locale;
    std::vector<std::string> vocabulary;  // at most 100 phrases
  };

  struct ChannelKeyView {
    std::string_view sessionId;
    AudioSource source;
    auto operator<=>(const ChannelKeyView&) const = default;
  };
  struct ChannelKey {
    std::string sessionId;
    AudioSource source;
    operator ChannelKeyView() const { return {sessionId, source}; }
  };
  // Orders keys, and allows lookups by view without creating a key.
  struct KeyOrder {
    using is_transparent = void;
    bool operator()(const ChannelKeyView& a, const ChannelKeyView& b) const { return a < b; }
  };

  bool isAvailable(std::string_view locale);
  void reportDictationDisabled(const ChannelKey& key);
  void handleDictationDisabled(const ChannelKey& key);
  std::shared_ptr<LegacyRecognitionChannel> makeChannel(const ChannelKey& key,
                                                        const SessionConfiguration& session);

  Platform& platform_;
  JSONLineWriter& writer_;
  DictationProbe& dictation_;
  std::map<std::string, SessionConfiguration, std::less<>> sessions_;
  std::map<ChannelKey, std::shared_ptr<LegacyRecognitionChannel>, KeyOrder> channels_;
  std::set<ChannelKey, KeyOrder> suppressed_;
  std::set<ChannelKey, KeyOrder> dictationNoticeSent_;
  // Channels hold a weak reference to this. It expires when the backend is destroyed.
  std::shared_ptr<LegacySpeechBackend*> self_;
};

}  // namespace palaver
