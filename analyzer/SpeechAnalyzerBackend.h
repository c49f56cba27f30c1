// Implements the backend with stream-based analysis. Keeps the open sessions, the muted sources, and one
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

class JSONLineWriter;
struct Platform;

// Main thread only, without locks. Asynchronous work runs in tasks that never touch the collections. Every
// operation returns immediately, even when the platform blocks.
class SpeechAnalyzerBackend final : public SpeechBackend {
 public:
  SpeechAnalyzerBackend(Platform& platform, JSONLineWriter& writer);
  ~SpeechAnalyzerBackend() override;

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
  class ChannelTask;

  void createChannel(std::string_view sessionId, AudioSource source,
                     const SessionConfiguration& configuration);

  Platform& platform_;
  JSONLineWriter& writer_;
  std::map<std::string, SessionConfiguration, std::less<>> sessions_;
  // Holds the tasks that build channels, not the channels. Every user awaits the task's value.
  std::map<ChannelKey, std::shared_ptr<ChannelTask>, ChannelKeyOrder> channels_;
  std::set<ChannelKey, ChannelKeyOrder> suppressed_;
};

}  // namespace palaver
