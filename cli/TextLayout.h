// Formats text for a terminal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace palaver::cli {

// The functions take UTF-8 and count terminal columns: two for wide East Asian characters, none for combining
// ones. Each byte that is not UTF-8 takes one column. Any thread.

// Replaces control characters and malformed bytes with '?' and line breaks with spaces, so that the text
// cannot move the cursor.
std::string printable(std::string_view text);

std::size_t columnsOf(std::string_view text);

// Returns the longest suffix that fits, with a leading ellipsis if the text was truncated.
std::string lastColumns(std::string_view text, std::size_t columns);

// Wraps the text at spaces, or inside words that are longer than a line. Returns at least one line. `columns`
// is at least 2.
std::vector<std::string> wrap(std::string_view text, std::size_t columns);

// Returns a bar such as "[#####-----]" of `columns` columns, at least 3. Clamps `fraction` to 0...1.
std::string progressBar(double fraction, std::size_t columns);

// Formats milliseconds as "12.3 s" or "1:02.3".
std::string position(double milliseconds);

}  // namespace palaver::cli
