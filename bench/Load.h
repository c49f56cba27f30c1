// Generates the input of the benchmarks: meeting audio as a host sends it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace palaver::bench {

inline constexpr std::size_t usualFramesPerLine = 1600;  // 100 ms at 16 kHz
inline constexpr std::size_t pipeSize = 1 << 20;         // bytes

// Generates the same load in every process and every run.
class Load {
 public:
  // Generates audio of `sessions` sessions with two sources each, in turn.
  explicit Load(int sessions, std::size_t framesPerLine = usualFramesPerLine);

  // Returns the commands that open the sessions.
  const std::string& opening() const { return opening_; }

  // Returns one line with its line feed, about 4412 bytes for 100 ms. Lines repeat their audio, quiet and
  // loud, after a while.
  std::string line(std::size_t sequence) const;

  // Returns the first `count` lines as one text.
  std::string lines(std::size_t count) const;

 private:
  std::size_t framesPerLine_;
  std::vector<std::string> sessionIds_;
  std::vector<std::string> chunks_;  // Base64
  std::string opening_;
};

// Writes the load's opening and then `lines` of its lines to stdout, from memory: by copy, as hosts
// write, or by reference, which costs almost nothing, so that the reader is measured. Returns the exit
// status of the process.
int runWriter(const Load& load, std::size_t lines, bool byReference);

}  // namespace palaver::bench
