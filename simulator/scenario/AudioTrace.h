// Follows each chunk of audio from the host to a recognizer. A chunk is traced by its first sample, if no
// other chunk of the scenario begins with it.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "simulator/scenario/Invariants.h"

namespace palaver {

using Channel = std::pair<std::string, std::string>;  // session and source

inline constexpr double voiceThreshold = 0.008;        // documented: root mean square of full scale
inline constexpr std::size_t longestPreroll = 2;       // documented: chunks
inline constexpr std::size_t longestHeldBack = 40;     // documented: chunks
inline constexpr std::size_t longestVocabulary = 100;  // documented: phrases

struct Chunk {
  const HostCommand* command;
  Channel channel;
  std::size_t episode;  // index in AudioTrace::episodes; npos: its source was not started, or muted
  bool isValid;         // its payload can be decoded
  double loudness;      // root mean square, full scale 1
  std::size_t frames;
  std::int16_t name = 0;    // its first sample, if that names it; else 0
  bool isReceived = false;  // by any recognizer

  bool isVoice() const { return loudness >= voiceThreshold; }
};

// What one recognition task or one analyzer has received.
struct Receiver {
  const JSON* record;
  std::vector<std::size_t> chunks;  // traced ones, those dropped by the receiver last
  std::size_t received = 0;         // how many of them were not dropped
  std::size_t episode = std::string::npos;

  std::optional<double> time(const char* key) const;
  std::size_t count(const char* key) const { return record->at(key).get<std::size_t>(); }
};

// The time from the start or unmuting of a source to its stop or muting.
struct Episode {
  Channel channel;
  HostCommand start;  // the session.start whose options hold
  double end = std::numeric_limits<double>::infinity();
  bool isMutedAtEnd = false;
  std::vector<std::size_t> chunks{};     // valid ones
  std::vector<std::size_t> receivers{};  // in the order of their creation
};

class AudioTrace {
 public:
  explicit AudioTrace(const Observation& observation);

  std::vector<Chunk> chunks;
  std::vector<Episode> episodes;
  std::vector<Receiver> receivers;  // tasks without probes, or analyzers
  std::map<std::int16_t, std::size_t> names;

  // Returns whether the audio of the source may have been dropped since Dictation was off.
  bool isTouchedByDictation(const Channel& channel) const;
  // Returns whether an error may have reported that this chunk was lost.
  bool isReportedLost(const Chunk& chunk) const;
  // Returns whether each task of the source answered no more after its end.
  bool keepsContract(const Channel& channel) const;

 private:
  void followHost();
  void followReceivers();

  const Observation& observation_;
};

}  // namespace palaver
