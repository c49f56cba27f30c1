// Where a host's audio comes from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace palaver::host {

inline constexpr int sampleRate = 16000;          // Hz, of everything that is sent to the helper
inline constexpr std::size_t chunkFrames = 1600;  // 100 ms, the size of one audio command
inline constexpr double chunkMilliseconds = 100;

// A stream of 16 kHz mono 16-bit audio. Used by one thread at a time.
class SoundSource {
 public:
  virtual ~SoundSource() = default;

  // Fills `frames` with the next audio and returns how many it wrote; fewer than asked for only at the end.
  // Throws std::runtime_error with a message for the user.
  virtual std::size_t read(std::span<std::int16_t> frames) = 0;

  // The whole length in 16 kHz frames; an estimate for some compressed containers, 0 when unknown.
  virtual std::int64_t length() const = 0;

 protected:
  SoundSource() = default;
  SoundSource(const SoundSource&) = default;
  SoundSource& operator=(const SoundSource&) = default;
};

}  // namespace palaver::host
