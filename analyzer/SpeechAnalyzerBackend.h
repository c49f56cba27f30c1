// The backend on stream-based analysis: which sessions are open, which sources are muted, one channel per
// source.
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

// The collections live on the main thread and are not locked; what is asynchronous runs in tasks that never
// touch them. Every operation returns at once, whatever the platform does.
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
  // Orders keys, and lets a view find a key without making one.
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
  // The tasks that build channels, never the channels themselves: every user awaits the task's value.
  std::map<ChannelKey, std::shared_ptr<ChannelTask>, KeyOrder> channels_;
  std::set<ChannelKey, KeyOrder> suppressed_;
};

}  // namespace palaver
