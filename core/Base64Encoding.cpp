#include "core/Base64Encoding.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace palaver {

std::string encodeBase64(std::span<const std::uint8_t> bytes) {
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t group = 0;
    for (std::size_t k = 0; k < 3; ++k) group = group << 8 | (k < count ? bytes[i + k] : 0u);
    for (std::size_t k = 0; k < 4; ++k) text += k <= count ? alphabet[group >> (18 - 6 * k) & 0x3F] : '=';
  }
  return text;
}

std::string encodePCM(std::span<const std::int16_t> samples) {
  std::vector<std::uint8_t> bytes;
  for (const std::int16_t sample : samples) {
    const auto bits = static_cast<std::uint16_t>(sample);
    bytes.push_back(static_cast<std::uint8_t>(bits & 0xFF));
    bytes.push_back(static_cast<std::uint8_t>(bits >> 8));
  }
  return encodeBase64(bytes);
}

}  // namespace palaver
