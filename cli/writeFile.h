// Writes to descriptors and files that hold what was said.
#pragma once

#include <string>
#include <string_view>

namespace palaver::cli {

// Writes all bytes, to a blocking descriptor or not. Returns false with `errno` set when that fails.
bool writeAll(int descriptor, std::string_view bytes);

// Creates the file with mode 0600, or replaces what it holds. Throws std::runtime_error with the path and the
// reason.
void writePrivateFile(const std::string& path, std::string_view text);

}  // namespace palaver::cli
