#include "core/Text.h"

#include <algorithm>

namespace palaver {

namespace {

// Returns the length of the member of the set at the start of the text, or 0. Sources: Unicode general
// category Zs, the newline set U+000A to U+000D, U+0085, U+2028, U+2029, and U+200B, which Foundation's
// whitespacesAndNewlines has too (tests/apple/WhiteSpaceTest.cpp compares with the real one).
std::size_t spaceLength(std::string_view text) {
  const auto byte = [&text](std::size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
  };
  const unsigned second = byte(1), third = byte(2);
  switch (byte(0)) {
    case '\t':
    case '\n':
    case '\v':
    case '\f':
    case '\r':
    case ' ':
      return 1;
    case 0xC2:
      return second == 0x85 || second == 0xA0 ? 2 : 0;
    case 0xE1:
      return second == 0x9A && third == 0x80 ? 3 : 0;
    case 0xE2:
      if (second == 0x80)
        return (third >= 0x80 && third <= 0x8B) || third == 0xA8 || third == 0xA9 || third == 0xAF ? 3 : 0;
      return second == 0x81 && third == 0x9F ? 3 : 0;
    case 0xE3:
      return second == 0x80 && third == 0x80 ? 3 : 0;
    default:
      return 0;
  }
}

char lowerASCII(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

std::string_view trimWhitespaceAndNewlines(std::string_view text) {
  while (const auto length = spaceLength(text)) text.remove_prefix(length);
  for (bool trimmed = true; trimmed;) {
    trimmed = false;
    for (std::size_t length = 1; length <= 3; ++length) {
      if (text.size() < length || spaceLength(text.substr(text.size() - length)) != length) continue;
      text.remove_suffix(length);
      trimmed = true;
      break;
    }
  }
  return text;
}

bool containsCaseInsensitively(std::string_view text, std::string_view lowerCaseNeedle) {
  return std::search(text.begin(), text.end(), lowerCaseNeedle.begin(), lowerCaseNeedle.end(),
                     [](char a, char b) { return lowerASCII(a) == b; }) != text.end() ||
         lowerCaseNeedle.empty();
}

}  // namespace palaver
