// Validates UTF-8.
#pragma once

#include <string_view>

namespace palaver {

// Returns whether the bytes are well-formed UTF-8 (Unicode, table 3-7): no overlong forms, no surrogates,
// nothing above U+10FFFF.
bool isValidUTF8(std::string_view bytes);

}  // namespace palaver
