#include "platform/audio/SampleFormat.h"

#include <bit>
#include <cassert>

namespace palaver {

namespace {

template <typename Integer>
Integer littleEndian(const std::uint8_t* bytes) {
  Integer value = 0;
  for (std::size_t i = 0; i < sizeof(Integer); ++i)
    value = static_cast<Integer>(value | static_cast<Integer>(bytes[i]) << (8 * i));
  return value;
}

template <std::size_t size, typename Decode>
void decodeEach(std::span<const std::uint8_t> bytes, std::span<float> samples, Decode decode) {
  const auto* at = bytes.data();
  for (auto& sample : samples) {
    sample = static_cast<float>(decode(at));
    at += size;
  }
}

}  // namespace

std::size_t bytesPerSample(SampleEncoding encoding) {
  switch (encoding) {
    case SampleEncoding::unsigned8:
      return 1;
    case SampleEncoding::signed16:
      return 2;
    case SampleEncoding::signed24:
      return 3;
    case SampleEncoding::signed32:
    case SampleEncoding::float32:
      return 4;
    case SampleEncoding::float64:
      return 8;
  }
  return 0;
}

void decodeSamples(std::span<const std::uint8_t> bytes, SampleEncoding encoding, std::span<float> samples) {
  assert(bytes.size() >= samples.size() * bytesPerSample(encoding));
  switch (encoding) {
    case SampleEncoding::unsigned8:
      return decodeEach<1>(bytes, samples, [](const std::uint8_t* at) { return (*at - 128) / 128.0; });
    case SampleEncoding::signed16:
      return decodeEach<2>(bytes, samples, [](const std::uint8_t* at) {
        return static_cast<std::int16_t>(littleEndian<std::uint16_t>(at)) / 32768.0;
      });
    case SampleEncoding::signed24:
      return decodeEach<3>(bytes, samples, [](const std::uint8_t* at) {
        const auto high = static_cast<std::uint32_t>(at[2]) << 24 | static_cast<std::uint32_t>(at[1]) << 16 |
                          static_cast<std::uint32_t>(at[0]) << 8;
        return static_cast<std::int32_t>(high) / 2147483648.0;
      });
    case SampleEncoding::signed32:
      return decodeEach<4>(bytes, samples, [](const std::uint8_t* at) {
        return static_cast<std::int32_t>(littleEndian<std::uint32_t>(at)) / 2147483648.0;
      });
    case SampleEncoding::float32:
      return decodeEach<4>(bytes, samples, [](const std::uint8_t* at) {
        return std::bit_cast<float>(littleEndian<std::uint32_t>(at));
      });
    case SampleEncoding::float64:
      return decodeEach<8>(bytes, samples, [](const std::uint8_t* at) {
        const auto value = std::bit_cast<double>(littleEndian<std::uint64_t>(at));
        return value > 1e6 || value < -1e6 ? 0.0 : value;  // beyond what a float holds is no audio
      });
  }
}

}  // namespace palaver
