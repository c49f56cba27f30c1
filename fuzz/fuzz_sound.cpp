// Reads any bytes as a sound: as a stream in one piece, as a stream in two pieces and, when they are a WAV
// file, from the file. All must agree.
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "platform/audio/SampleFile.h"
#include "platform/audio/SampleStream.h"
#include "platform/audio/WaveHeader.h"

namespace {

using namespace palaver;

struct Outcome {
  std::vector<std::int16_t> samples;
  std::string error;  // empty: none
};

Outcome streamed(std::span<const std::uint8_t> bytes, std::size_t split) {
  Outcome outcome;
  SampleStream stream(std::nullopt);
  try {
    stream.append(bytes.first(split), outcome.samples);
    stream.append(bytes.subspan(split), outcome.samples);
    stream.finish(outcome.samples);
  } catch (const std::runtime_error& error) {
    outcome.error = error.what();
  }
  return outcome;
}

Outcome read(const std::string& bytes) {
  Outcome outcome;
  try {
    auto file = SampleFile::openWave(std::make_unique<std::istringstream>(bytes), bytes.size());
    require(file.length() >= 0 && static_cast<std::size_t>(file.length()) <= bytes.size(),
            "length beyond the file");
    MonoResampler resampler(file.sampleRate(), file.channelCount());
    const auto channels = static_cast<std::size_t>(file.channelCount());
    std::vector<float> block(100 * channels);
    std::int64_t frames = 0;
    while (const auto count = file.read(block)) {
      frames += static_cast<std::int64_t>(count);
      resampler.convert(std::span(block).first(count * channels), outcome.samples);
    }
    resampler.finish(outcome.samples);
    require(frames == file.length(), "fewer frames than the length");
  } catch (const std::runtime_error& error) {
    outcome.error = error.what();
  }
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A rate of 1 Hz makes 16000 frames of each one.
  constexpr std::size_t maxBytes = 2000;
  if (size > maxBytes) return 0;
  const std::span bytes(data, size);
  const auto whole = streamed(bytes, size);
  const auto split = streamed(bytes, size == 0 ? 0 : data[size - 1] % size);
  require(whole.error == split.error, "other error in pieces");
  require(!whole.error.empty() || whole.samples == split.samples, "other samples in pieces");
  if (!isWave(bytes)) return 0;
  const auto file = read(std::string(text(data, size)));
  require(whole.error.empty() == file.error.empty(), "file or stream fails alone");
  require(!whole.error.empty() || whole.samples == file.samples, "other samples from a file");
  return 0;
}
