// Tables of the Base64 alphabet by the halves of a character, for decoders that look up 16 entries at once.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace palaver {

// RFC 4648, section 4.
inline constexpr std::string_view base64Alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// A character is in the alphabet when validHighs[low half] and bitOfHigh[high half] share a bit. Its value is
// the character plus offsets[high half], or plus offsets[1] for a slash. No character of the alphabet has the
// high half 1.
struct Base64Nibbles {
  alignas(16) std::array<std::uint8_t, 16> validHighs{};
  alignas(16) std::array<std::uint8_t, 16> bitOfHigh{};
  alignas(16) std::array<std::uint8_t, 16> offsets{};
};

constexpr Base64Nibbles makeBase64Nibbles() {
  Base64Nibbles made;
  for (unsigned value = 0; value < base64Alphabet.size(); ++value) {
    const auto character = static_cast<unsigned char>(base64Alphabet[value]);
    const unsigned high = character >> 4U;
    made.bitOfHigh[high] = static_cast<std::uint8_t>(1U << high);
    made.validHighs[character & 0xFU] |= made.bitOfHigh[high];
    made.offsets[character == '/' ? 1 : high] = static_cast<std::uint8_t>(value - character);
  }
  return made;
}

inline constexpr Base64Nibbles base64Nibbles = makeBase64Nibbles();

}  // namespace palaver
