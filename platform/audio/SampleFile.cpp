#include "platform/audio/SampleFile.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "platform/audio/WaveHeader.h"

namespace palaver {

namespace {

// Reads up to bytes.size() bytes. Returns how many there were.
std::size_t readBytes(std::istream& stream, std::span<std::uint8_t> bytes) {
  stream.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (stream.bad()) throw std::runtime_error("it cannot be read");
  return static_cast<std::size_t>(stream.gcount());
}

}  // namespace

SampleFile::SampleFile(std::unique_ptr<std::istream> stream, const SampleFormat& format,
                       std::uint64_t dataBytes)
    : stream_(std::move(stream)),
      format_(format),
      length_(static_cast<std::int64_t>(dataBytes / format.bytesPerFrame())),
      left_(length_) {}

SampleFile SampleFile::openWave(std::unique_ptr<std::istream> stream, std::uint64_t size) {
  std::vector<std::uint8_t> bytes;
  for (;;) {
    const auto known = bytes.size();
    bytes.resize(std::min<std::uint64_t>(std::max<std::size_t>(4096, known * 2), size));
    bytes.resize(known + readBytes(*stream, std::span(bytes).subspan(known)));
    if (const auto header = parseWaveHeader(bytes)) {
      const auto present = size - std::min<std::uint64_t>(size, header->dataOffset);
      stream->clear();
      stream->seekg(static_cast<std::streamoff>(header->dataOffset));
      return {std::move(stream), header->format, std::min(header->dataBytes.value_or(present), present)};
    }
    if (bytes.size() == known) throw WaveError("it ends within its header");
  }
}

SampleFile SampleFile::openRaw(std::unique_ptr<std::istream> stream, std::uint64_t size,
                               const RawFormat& format) {
  return {std::move(stream), {SampleEncoding::signed16, format.sampleRate, format.channelCount}, size};
}

std::size_t SampleFile::read(std::span<float> samples) {
  const auto channels = static_cast<std::size_t>(format_.channelCount);
  const auto wanted = static_cast<std::size_t>(
      std::min<std::int64_t>(static_cast<std::int64_t>(samples.size() / channels), left_));
  bytes_.resize(wanted * format_.bytesPerFrame());
  const auto frames = readBytes(*stream_, bytes_) / format_.bytesPerFrame();
  decodeSamples(bytes_, format_.encoding, samples.first(frames * channels));
  left_ = frames < wanted ? 0 : left_ - static_cast<std::int64_t>(frames);
  return frames;
}

}  // namespace palaver
