#include "core/UUID.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace palaver {

std::string makeUUIDString() {
  // std::random_device executes RDSEED on x86-64, which took 16 µs a word on a shared machine.
  std::array<std::uint32_t, 4> words{};
  if (::getentropy(words.data(), sizeof words) != 0)
    throw std::system_error(errno, std::generic_category(), "getentropy");
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
