// Reads any bytes as a sound, in these ways, of which all must agree:
//   - as a stream in one piece
//   - as a stream in two pieces; the last byte chooses where it is split
//   - as the file, when the bytes are a WAV file
// Reads them also as a stream and as a file of the stated format of headerless samples, which the byte in the
// middle chooses.
#include <algorithm>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "platform/audio/SampleFile.h"
#include "platform/audio/SampleStream.h"
#include "platform/audio/WaveHeader.h"
#include "platform/audio/openSound.h"

namespace {

using namespace palaver;

struct Outcome {
  std::vector<std::int16_t> samples;
  std::string error;  // empty: none
};

using Bytes = std::span<const std::uint8_t>;

Outcome streamed(Bytes bytes, std::size_t split, std::optional<RawFormat> stated) {
  Outcome outcome;
  SampleStream stream(stated);
  try {
    stream.append(bytes.first(split), outcome.samples);
    stream.append(bytes.subspan(split), outcome.samples);
    stream.finish(outcome.samples);
  } catch (const std::runtime_error& error) {
    outcome.error = error.what();
  }
  return outcome;
}

template <typename Open>
Outcome read(Bytes bytes, Open open) {
  Outcome outcome;
  try {
    auto file = open(std::make_unique<std::istringstream>(std::string(text(bytes.data(), bytes.size()))));
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
    require(static_cast<std::int64_t>(outcome.samples.size()) == resampler.outputFramesFor(frames),
            "another length than announced");
  } catch (const std::runtime_error& error) {
    outcome.error = error.what();
  }
  return outcome;
}

void requireSame(const Outcome& left, const Outcome& right, const char* what) {
  require(left.error.empty() == right.error.empty(), what);
  require(!left.error.empty() || left.samples == right.samples, what);
}

// Returns whether the sound is short enough: a rate of 1 Hz makes 16000 frames of each one.
bool isShort(std::size_t bytes, const SampleFormat& format) {
  constexpr std::size_t maxFrames = std::size_t{1} << 22;
  return bytes / format.bytesPerFrame() * 16000 / static_cast<std::size_t>(format.sampleRate) <= maxFrames;
}

void checkUnstated(Bytes bytes, std::size_t split) {
  if (isWave(bytes)) {
    try {
      const auto header = parseWaveHeader(bytes);
      if (header && !isShort(bytes.size() - header->dataOffset, header->format)) return;
    } catch (const WaveError&) {
      // Refused below.
    }
  }
  const auto whole = streamed(bytes, bytes.size(), std::nullopt);
  const auto pieces = streamed(bytes, split, std::nullopt);
  require(whole.error == pieces.error, "other error in pieces");
  requireSame(whole, pieces, "other samples in pieces");
  if (isWave(bytes))
    requireSame(
        whole,
        read(bytes, [&](auto stream) { return SampleFile::openWave(std::move(stream), bytes.size()); }),
        "file and stream differ");
}

void checkStated(Bytes bytes, std::size_t split) {
  constexpr int rates[] = {8000, 16000, 44100, 48000};
  const auto choice = bytes[bytes.size() / 2];
  const RawFormat stated{.sampleRate = rates[choice % 4], .channelCount = 1 + choice / 4 % 4};
  const auto whole = streamed(bytes, bytes.size(), stated);
  const auto pieces = streamed(bytes, split, stated);
  require(whole.error == pieces.error, "other error in pieces of the stated format");
  requireSame(whole, pieces, "other samples in pieces of the stated format");
  if (containerOf(bytes).empty())
    requireSame(
        whole,
        read(bytes,
             [&](auto stream) { return SampleFile::openRaw(std::move(stream), bytes.size(), stated); }),
        "file and stream of the stated format differ");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t maxBytes = 10000;
  if (size == 0 || size > maxBytes) return 0;
  const Bytes bytes(data, size);
  const auto split = data[size - 1] % size;
  checkUnstated(bytes, split);
  checkStated(bytes, split);
  return 0;
}
