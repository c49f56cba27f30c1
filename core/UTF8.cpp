#include "core/UTF8.h"

#include <cstddef>

namespace palaver {

bool isValidUTF8(std::string_view bytes) {
  const auto* at = reinterpret_cast<const unsigned char*>(bytes.data());
  const auto* const end = at + bytes.size();
  while (at < end) {
    const unsigned char lead = *at++;
    if (lead < 0x80) continue;
    if (lead < 0xC2 || lead > 0xF4) return false;
    const std::ptrdiff_t following = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    if (end - at < following) return false;
    // The second byte reveals overlong forms, surrogates and values above U+10FFFF.
    const unsigned char lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (*at < lowest || *at > highest) return false;
    for (std::ptrdiff_t i = 1; i < following; ++i)
      if ((at[i] & 0xC0) != 0x80) return false;
    at += following;
  }
  return true;
}

}  // namespace palaver
