#include "platform/audio/WaveHeader.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

namespace palaver {

namespace {

constexpr std::size_t riffHeaderBytes = 12;
constexpr std::size_t chunkHeaderBytes = 8;
constexpr std::uint32_t unknownSize = 0xFFFFFFFF;

constexpr std::uint32_t pcmTag = 1;
constexpr std::uint32_t floatTag = 3;
constexpr std::uint32_t extensibleTag = 0xFFFE;

std::uint32_t number(std::span<const std::uint8_t> bytes, std::size_t at, std::size_t size) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < size; ++i) value |= static_cast<std::uint32_t>(bytes[at + i]) << (8 * i);
  return value;
}

std::string_view name(std::span<const std::uint8_t> bytes, std::size_t at) {
  return {reinterpret_cast<const char*>(bytes.data()) + at, 4};
}

SampleEncoding encodingOf(std::uint32_t tag, std::uint32_t bits) {
  if (tag == pcmTag && bits >= 1 && bits <= 32) {
    constexpr std::array encodings{SampleEncoding::unsigned8, SampleEncoding::signed16,
                                   SampleEncoding::signed24, SampleEncoding::signed32};
    return encodings[(bits - 1) / 8];
  }
  if (tag == floatTag && bits == 32) return SampleEncoding::float32;
  if (tag == floatTag && bits == 64) return SampleEncoding::float64;
  throw UnknownWaveEncoding("its samples are encoded in a way that is not read (format " +
                            std::to_string(tag) + ", " + std::to_string(bits) + " bits)");
}

SampleFormat formatOf(std::span<const std::uint8_t> chunk) {
  if (chunk.size() < 16) throw WaveError("its description of the format is too short");
  auto tag = number(chunk, 0, 2);
  const auto channels = number(chunk, 2, 2);
  const auto rate = number(chunk, 4, 4);
  const auto blockAlign = number(chunk, 12, 2);
  const auto bits = number(chunk, 14, 2);
  if (tag == extensibleTag) {
    // The format is a GUID, of which the first two bytes are the tag and the others are these.
    constexpr std::array<std::uint8_t, 14> rest{0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};
    if (chunk.size() < 40) throw WaveError("its description of the format is too short");
    if (!std::ranges::equal(chunk.subspan(26, 14), rest))
      throw UnknownWaveEncoding("its samples are encoded in a way that is not read");
    tag = number(chunk, 24, 2);
  }
  SampleFormat format;
  format.encoding = encodingOf(tag, bits);
  if (channels < 1 || channels > maxChannelCount)
    throw WaveError("it has " + std::to_string(channels) + " channels");
  if (rate < 1 || rate > maxSampleRate)
    throw WaveError("its rate of " + std::to_string(rate) + " Hz cannot be resampled");
  format.channelCount = static_cast<int>(channels);
  format.sampleRate = static_cast<int>(rate);
  if (blockAlign != format.bytesPerFrame()) throw WaveError("its description of the format is damaged");
  return format;
}

}  // namespace

bool isWave(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < riffHeaderBytes || name(bytes, 8) != "WAVE") return false;
  const auto riff = name(bytes, 0);
  return riff == "RIFF" || riff == "RF64" || riff == "BW64";
}

std::optional<WaveHeader> parseWaveHeader(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < riffHeaderBytes) return std::nullopt;
  if (!isWave(bytes)) throw WaveError("it is no WAV file");
  const bool isRIFF = name(bytes, 0) == "RIFF";
  const std::uint64_t riffEnd = std::uint64_t{number(bytes, 4, 4)} + chunkHeaderBytes;
  std::optional<SampleFormat> format;
  std::optional<std::uint64_t> longDataBytes;  // of RF64
  for (std::size_t at = riffHeaderBytes; at <= maxWaveHeaderBytes;) {
    if (bytes.size() < at + chunkHeaderBytes) return std::nullopt;
    const auto id = name(bytes, at);
    const std::uint32_t size = number(bytes, at + 4, 4);
    at += chunkHeaderBytes;
    if (id == "data") {
      if (!format) throw WaveError("its samples precede the description of their format");
      WaveHeader header{*format, at, size};
      // Writers that cannot go back to the header state no size: all ones, or 0 with a RIFF chunk that ends
      // here.
      if (size == unknownSize) header.dataBytes = isRIFF ? std::nullopt : longDataBytes;
      if (size == 0 && isRIFF && riffEnd <= at) header.dataBytes = std::nullopt;
      return header;
    }
    const std::uint64_t end = std::uint64_t{at} + size + size % 2;
    if (end > maxWaveHeaderBytes) break;
    if (id == "fmt " || id == "ds64") {
      if (bytes.size() < at + size) return std::nullopt;
      const auto chunk = bytes.subspan(at, size);
      if (id == "fmt ") format = formatOf(chunk);
      if (id == "ds64" && size >= 16)
        longDataBytes = std::uint64_t{number(chunk, 12, 4)} << 32 | number(chunk, 8, 4);
    }
    at = static_cast<std::size_t>(end);
  }
  throw WaveError("it has no samples within its first 16 MiB");
}

}  // namespace palaver
