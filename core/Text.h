// Trims and searches text with the platform's character sets.
#pragma once

#include <string_view>

namespace palaver {

// Removes white space and newlines from both ends of UTF-8 text: tab, the Unicode space separators (Zs), LF
// to CR, U+0085, U+200B, U+2028 and U+2029. This is the platform's whitespace-and-newlines set. Other bytes,
// including malformed ones, are kept.
std::string_view trimWhitespaceAndNewlines(std::string_view text);

// Returns whether the text contains the needle, ignoring the case of ASCII letters. The needle must
// be lower-case ASCII.
bool containsCaseInsensitively(std::string_view text, std::string_view lowerCaseNeedle);

}  // namespace palaver
