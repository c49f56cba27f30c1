// Decodes sound that arrives piece by piece: WAV or headerless samples.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "platform/audio/MonoResampler.h"
#include "platform/audio/SampleFormat.h"

namespace palaver {

// Converts bytes to 16 kHz mono audio as they arrive. The result does not depend on the pieces. Used by one
// thread at a time.
class SampleStream {
 public:
  // `stated` is the format of headerless samples. A stream with a header must not differ from it.
  explicit SampleStream(std::optional<RawFormat> stated) : stated_(stated) {}

  // Appends the frames that the bytes complete to `out`. Ignores what follows the samples of a WAV file.
  // Throws std::runtime_error with the reason, as a sentence without a subject, when the bytes are no sound
  // that can be read.
  void append(std::span<const std::uint8_t> bytes, std::vector<std::int16_t>& out);

  // Ends the stream. Appends the last frames. An incomplete last frame is dropped. Throws like append().
  void finish(std::vector<std::int16_t>& out);

 private:
  void start(bool isWhole);
  void useWave();
  void convert(std::vector<std::int16_t>& out);

  std::optional<RawFormat> stated_;
  std::vector<std::uint8_t> bytes_;  // not yet decoded
  std::optional<SampleFormat> format_;
  std::optional<std::uint64_t> left_;  // bytes of samples; none: all up to the end
  std::unique_ptr<MonoResampler> resampler_;
  std::vector<float> samples_;
};

}  // namespace palaver
