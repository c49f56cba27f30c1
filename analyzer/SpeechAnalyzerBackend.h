// Implements the backend with stream-based analysis. Keeps the open sessions, the muted sources, and one
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

  class ChannelTask;

  void createChannel(std::string_view sessionId, AudioSource source,
                     const SessionConfiguration& configuration);

  Platform& platform_;
  JSONLineWriter& writer_;
  std::map<std::string, SessionConfiguration, std::less<>> sessions_;
  // Holds the tasks that build channels, not the channels. Every user awaits the task's value.
  std::map<ChannelKey, std::shared_ptr<ChannelTask>, KeyOrder> channels_;
  std::set<ChannelKey, KeyOrder> suppressed_;
};

}  // namespace palaver
