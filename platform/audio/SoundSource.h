// Defines a source of 16 kHz mono audio.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
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

  // The functions below are for sources that arrive over time. Files do not override them.

  // Returns a descriptor to poll: receive() is to be called when it is readable. -1 while nothing is to be
  // received.
  virtual int descriptor() const { return -1; }

  // Takes what has arrived, without waiting when the descriptor is readable. Throws like read().
  virtual void receive() {}

  // Returns whether read() of that many frames would be the last one or fill all of them.
  virtual bool canRead(std::size_t /*frames*/) const { return true; }

  // Returns when the first audio arrived, if the source is captured as it is read and has not ended. None for
  // a recording, which the reader paces.
  virtual std::optional<std::chrono::steady_clock::time_point> liveSince() const { return std::nullopt; }

  // Ends the source with what has arrived. Throws like read().
  virtual void stop() {}

 protected:
  SoundSource() = default;
  SoundSource(const SoundSource&) = default;
  SoundSource& operator=(const SoundSource&) = default;
};

}  // namespace palaver
