// Splits a byte stream into lines.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace palaver::cli {

// Lines end at the byte 0x0A and nowhere else: U+2028, U+0085 and carriage returns are part of a line's text.
// Lines end only at the byte 0x0A. U+2028, U+0085 and carriage returns are part of a line. Used by one thread
// at a time.
class LineSplitter {
 public:
  // Receives a line without its line feed. The view is valid during the call.
  using LineHandler = std::function<void(std::string_view line)>;

  // Appends bytes and passes every completed line to the handler. Throws std::length_error when a line
  // exceeds maxLineBytes.
  void append(std::string_view bytes, const LineHandler& handler);

  // Passes a last line without a line feed to the handler. Call at the end of the stream.
  void finish(const LineHandler& handler);

  static constexpr std::size_t maxLineBytes = std::size_t{16} << 20;

 private:
  std::string partial_;
};

}  // namespace palaver::cli
