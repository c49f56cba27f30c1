// Defines a source of 16 kHz mono audio.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace palaver {

inline constexpr int sampleRate = 16000;  // Hz, for all audio sent to the helper

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

}  // namespace palaver
