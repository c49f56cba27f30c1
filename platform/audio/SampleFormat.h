// Describes and decodes uncompressed samples.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace palaver {

enum class SampleEncoding { unsigned8, signed16, signed24, signed32, float32, float64 };  // little-endian

std::size_t bytesPerSample(SampleEncoding encoding);

struct SampleFormat {
  SampleEncoding encoding = SampleEncoding::signed16;
  int sampleRate = 16000;  // Hz
  int channelCount = 1;    // interleaved

  std::size_t bytesPerFrame() const {
    return bytesPerSample(encoding) * static_cast<std::size_t>(channelCount);
  }
  bool operator==(const SampleFormat&) const = default;
};

// Headerless samples: 16-bit, little-endian.
struct RawFormat {
  int sampleRate = 16000;  // Hz
  int channelCount = 1;
};

// Limits of the formats that are read: the resampler's filter grows with the rate.
inline constexpr int maxSampleRate = 1'000'000;  // Hz
inline constexpr int maxChannelCount = 256;

// Decodes samples.size() samples to full scale 1. `bytes` holds as many. Any thread.
void decodeSamples(std::span<const std::uint8_t> bytes, SampleEncoding encoding, std::span<float> samples);

}  // namespace palaver
