// Creates random identifiers.
#pragma once

#include <string>

namespace palaver {

// Returns a random (version 4) UUID in its usual form: 36 characters, upper-case hexadecimal
// digits. Throws std::system_error. Any thread.
std::string makeUUIDString();

}  // namespace palaver
