#include "core/UUID.h"

#include <array>
#include <cstdint>
#include <random>

namespace palaver {

std::string makeUUIDString() {
  std::random_device device;
  std::array<std::uint32_t, 4> words{device(), device(), device(), device()};
  words[1] = (words[1] & 0xFFFF0FFF) | 0x00004000;  // version 4 (RFC 9562)
  words[2] = (words[2] & 0x3FFFFFFF) | 0x80000000;  // variant 10
  std::string text;
  text.reserve(36);
  for (std::size_t digit = 0; digit < 32; ++digit) {
    if (digit == 8 || digit == 12 || digit == 16 || digit == 20) text += '-';
    text += "0123456789ABCDEF"[(words[digit / 8] >> (28 - digit % 8 * 4)) & 0xF];
  }
  return text;
}

}  // namespace palaver
