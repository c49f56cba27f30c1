// Defines the source of a host's audio.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace palaver::host {

inline constexpr int sampleRate = 16000;          // Hz, for all audio sent to the helper
inline constexpr std::size_t chunkFrames = 1600;  // 100 ms, one audio command
inline constexpr double chunkMilliseconds = 100;

// Provides 16 kHz mono 16-bit audio. Used by one thread at a time.
class SoundSource {
 public:
  virtual ~SoundSource() = default;

  // Fills `frames` and returns the number written, which is smaller than requested only at the end. Throws
  // std::runtime_error with a message for the user.
  virtual std::size_t read(std::span<std::int16_t> frames) = 0;

  // Returns the total length in 16 kHz frames: an estimate for some compressed containers, 0 when unknown.
  virtual std::int64_t length() const = 0;

 protected:
  SoundSource() = default;
  SoundSource(const SoundSource&) = default;
  SoundSource& operator=(const SoundSource&) = default;
};

}  // namespace palaver::host
