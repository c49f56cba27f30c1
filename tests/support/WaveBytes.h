// Writes the parts of WAV files, whole and damaged ones.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace palaver {

inline std::string little(std::int64_t value, std::size_t size) {
  std::string bytes;
  for (std::size_t i = 0; i < size; ++i) bytes += i < 8 ? static_cast<char>(value >> (8 * i)) : '\0';
  return bytes;
}

inline std::string chunkHeader(std::string_view id, std::size_t size) {
  return std::string(id) + little(static_cast<std::int64_t>(size), 4);
}

inline std::string chunk(std::string_view id, const std::string& bytes) {
  return chunkHeader(id, bytes.size()) + bytes + (bytes.size() % 2 == 1 ? std::string(1, '\0') : "");
}

inline std::string riff(const std::string& chunks) {
  return "RIFF" + little(static_cast<std::int64_t>(chunks.size()) + 4, 4) + "WAVE" + chunks;
}

// The content of a "fmt " chunk.
inline std::string waveFormat(int tag, int channels, int rate, int bits) {
  const int block = channels * ((bits + 7) / 8);
  return little(tag, 2) + little(channels, 2) + little(rate, 4) + little(std::int64_t{rate} * block, 4) +
         little(block, 2) + little(bits, 2);
}

inline std::string extensibleFormat(int tag, int channels, int rate, int bits) {
  using namespace std::string_literals;
  return waveFormat(0xFFFE, channels, rate, bits) + little(22, 2) + little(bits, 2) + little(0, 4) +
         little(tag, 2) + "\x00\x00\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71"s;
}

// A file of a format and so many bytes of zeros.
inline std::string wave(const std::string& format, std::size_t dataBytes) {
  return riff(chunk("fmt ", format) + chunk("data", std::string(dataBytes, '\0')));
}

}  // namespace palaver
