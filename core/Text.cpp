#include "core/Text.h"

#include <algorithm>
#include <array>

namespace palaver {

namespace {

// Members of the set in UTF-8. Sources: Unicode general category Zs, and the newline set U+000A to U+000D,
// U+0085, U+2028, U+2029.
constexpr std::array<std::string_view, 25> whitespaceAndNewlines{
    "\t",           "\n",           "\v",           "\f",           "\r",           " ",
    "\xC2\x85",     "\xC2\xA0",     "\xE1\x9A\x80", "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82",
    "\xE2\x80\x83", "\xE2\x80\x84", "\xE2\x80\x85", "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88",
    "\xE2\x80\x89", "\xE2\x80\x8A", "\xE2\x80\xA8", "\xE2\x80\xA9", "\xE2\x80\xAF", "\xE2\x81\x9F",
    "\xE3\x80\x80"};

char lowerASCII(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

std::string_view trimWhitespaceAndNewlines(std::string_view text) {
  const auto trimOnce = [](std::string_view& rest) {
    for (const auto space : whitespaceAndNewlines) {
      if (rest.starts_with(space)) {
        rest.remove_prefix(space.size());
        return true;
      }
      if (rest.ends_with(space)) {
        rest.remove_suffix(space.size());
        return true;
      }
    }
    return false;
  };
  while (trimOnce(text)) {
  }
  return text;
}

bool containsCaseInsensitively(std::string_view text, std::string_view lowerCaseNeedle) {
  return std::search(text.begin(), text.end(), lowerCaseNeedle.begin(), lowerCaseNeedle.end(),
                     [](char a, char b) { return lowerASCII(a) == b; }) != text.end() ||
         lowerCaseNeedle.empty();
}

}  // namespace palaver
