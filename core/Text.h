// Small text operations that follow the platform's character sets.
#pragma once

#include <string_view>

namespace palaver {

// Removes white space and newlines from both ends of UTF-8 text: tab, the Unicode space separators (Zs), LF
// to CR, U+0085, U+2028 and U+2029, as the platform's whitespace-and-newlines set has them. Other bytes, also
// malformed ones, stay.
std::string_view trimWhitespaceAndNewlines(std::string_view text);

// Whether the text contains the needle, letter case aside. The needle is lower-case ASCII; non-ASCII text
// only ever differs from it.
bool containsCaseInsensitively(std::string_view text, std::string_view lowerCaseNeedle);

}  // namespace palaver
