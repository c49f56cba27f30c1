// Random operations on an analyzer backend, and what must have come of them.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "core/SpeechBackend.h"
#include "simulator/machine/SimulatedSpeechAnalysis.h"

namespace palaver {

// Drives a backend with sessions named "s0", "s1" and so on, and foretells what reaches its analyzers. The
// analyzers must want the host's format; nothing may fail. Used by the thread that the backend lives on.
class BackendStorm {
 public:
  BackendStorm(SpeechBackend& backend, std::uint64_t seed, int sessionCount)
      : backend_(backend), random_(seed), sessionCount_(sessionCount) {}

  // One operation by chance: mostly audio.
  void step();

  // Each of these also says what must come of it.
  void start(const std::string& sessionId);
  void stop(const std::string& sessionId);
  void setSuppressed(const std::string& sessionId, AudioSource source, bool suppressed);
  void audio(const std::string& sessionId, AudioSource source);
  void stopAll();

  // Compares what reached the analyzers and what was written, once all is done. Fails the current test.
  void expectAnalyzers(const std::vector<RecordedAnalysis>& analyses) const;
  void expectEvents(const std::vector<nlohmann::json>& events) const;

  std::size_t channelCount() const { return channels_.size(); }

 private:
  enum class End { none, finished, cancelled };
  // What one analyzer must have got. The first phrase of its vocabulary tells which start it belongs to.
  struct Channel {
    std::string start;
    std::vector<std::int16_t> chunks;  // their first samples
    End end = End::none;
    auto operator<=>(const Channel&) const = default;
  };
  struct Session {
    std::string start;
    bool isOpen = false;
    std::map<AudioSource, std::size_t> channels;  // index of the live one
    std::set<AudioSource> suppressed;
  };

  void open(Session& session, AudioSource source);
  void close(Session& session, AudioSource source, End end);
  void expectTranscript(const nlohmann::json& event) const;

  SpeechBackend& backend_;
  std::mt19937_64 random_;
  const int sessionCount_;
  std::map<std::string, Session> sessions_;
  std::vector<Channel> channels_;
  int starts_ = 0;
  std::int16_t chunks_ = 0;
  // The events that answer operations at once, in their order.
  std::vector<std::tuple<std::string, std::string, std::string>> answers_;  // type, session, source
  // Whose chunk was captured at which time, ms.
  std::map<double, std::pair<std::string, std::string>> captures_;
  std::size_t readies_ = 0;
};

}  // namespace palaver
