// Cuts a stream of bytes into lines.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace palaver::host {

// Lines end at the byte 0x0A and nowhere else: U+2028, U+0085 and carriage returns are part of a line's text.
// Used by one thread at a time.
class LineSplitter {
 public:
  // A line without its line feed; valid during the call.
  using LineHandler = std::function<void(std::string_view line)>;

  // Takes the next bytes, and hands over every line that they complete. Throws std::length_error when a line
  // grows beyond maxLineBytes without an end.
  void append(std::string_view bytes, const LineHandler& handler);

  // At the end of the stream: hands over the last line if it lacks its line feed.
  void finish(const LineHandler& handler);

  static constexpr std::size_t maxLineBytes = std::size_t{16} << 20;

 private:
  std::string partial_;
};

}  // namespace palaver::host
