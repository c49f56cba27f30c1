// Defines a reader of samples in any format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace palaver {

// Reads a sound from its start to its end. Used by one thread at a time. Each function may throw an exception
// derived from std::exception whose text is the reason.
class SampleReader {
 public:
  virtual ~SampleReader() = default;

  virtual int sampleRate() const = 0;  // Hz
  virtual int channelCount() const = 0;

  // Returns the length in frames; an estimate for some compressed containers.
  virtual std::int64_t length() const = 0;

  // Reads the next frames, interleaved, full scale 1. `samples`: whole frames. Returns the frames read, fewer
  // only at the end.
  virtual std::size_t read(std::span<float> samples) = 0;

 protected:
  SampleReader() = default;
  SampleReader(const SampleReader&) = default;
  SampleReader& operator=(const SampleReader&) = default;
};

}  // namespace palaver
