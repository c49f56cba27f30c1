// Text as a terminal shows it.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace palaver::host {

// The functions take UTF-8 and count terminal columns: two for wide East Asian characters, none for combining
// ones. Bytes that are not UTF-8 count, and are shown, as one column each. Any thread.

// The text with control characters and malformed bytes replaced by '?' and line breaks by spaces, so that
// it cannot move the cursor.
std::string printable(std::string_view text);

std::size_t columnsOf(std::string_view text);

// The longest end of the text that fits, with an ellipsis in front when something was cut off.
std::string lastColumns(std::string_view text, std::size_t columns);

// The text in lines of at most so many columns, broken at spaces, or inside words that are longer, as texts
// without spaces are. At least one line; `columns` is at least 2.
std::vector<std::string> wrap(std::string_view text, std::size_t columns);

// A bar such as "[#####-----]" of so many columns in all, at least 3; `fraction` is cut to 0...1.
std::string progressBar(double fraction, std::size_t columns);

// Milliseconds as "12.3 s" or "1:02.3".
std::string position(double milliseconds);

}  // namespace palaver::host
