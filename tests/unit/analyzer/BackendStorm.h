// Performs random operations on an analyzer backend and checks their results.
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

// Drives a backend with sessions named "s0", "s1" and so on, and predicts what reaches its analyzers. The
// analyzers must accept the host's format, and no operation may fail. Lives on the backend's thread.
class BackendStorm {
 public:
  BackendStorm(SpeechBackend& backend, std::uint64_t seed, int sessionCount)
      : backend_(backend), random_(seed), sessionCount_(sessionCount) {}

  // Performs one random operation, mostly audio.
  void step();

  // Each performs the operation and records its expected result.
  void start(const std::string& sessionId);
  void stop(const std::string& sessionId);
  void setSuppressed(const std::string& sessionId, AudioSource source, bool suppressed);
  void audio(const std::string& sessionId, AudioSource source);
  void stopAll();

  // Compare the input of the analyzers and the output with the expectation, once all work is done. Fail
  // the current test.
  void expectAnalyzers(const std::vector<RecordedAnalysis>& analyses) const;
  void expectEvents(const std::vector<nlohmann::json>& events) const;

  std::size_t channelCount() const { return channels_.size(); }

 private:
  enum class End { none, finished, cancelled };
  // The expected input of one analyzer. The first phrase of its vocabulary identifies its session start.
  struct Channel {
    std::string start;
    std::vector<std::int16_t> chunks;  // their first samples
    End end = End::none;
    auto operator<=>(const Channel&) const = default;
  };
  struct Session {
    std::string start;
    bool isOpen = false;
    std::map<AudioSource, std::size_t> channels;  // index of the live channel
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
  // The events that answer operations immediately, in order.
  std::vector<std::tuple<std::string, std::string, std::string>> answers_;  // type, session, source
  // Session and source by capture time (ms).
  std::map<double, std::pair<std::string, std::string>> captures_;
  std::size_t readies_ = 0;
};

}  // namespace palaver
