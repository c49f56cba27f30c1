// Writes to descriptors and files that hold what was said.
#pragma once

#include <string>
#include <string_view>

#include "platform/posix/Descriptor.h"

namespace palaver::cli {

// Writes all bytes, to a blocking descriptor or not. Returns false with `errno` set when that fails.
bool writeAll(int descriptor, std::string_view bytes);

// Creates the file with mode 0600, or replaces what it holds. Throws like PrivateFile.
void writePrivateFile(const std::string& path, std::string_view text);

// Opens a file before there is anything to write, so that a path that cannot be written fails early. Main
// thread.
class PrivateFile {
 public:
  // Opens the file, or creates it with mode 0600. What it holds stays until the first write. Throws
  // std::runtime_error with the path and the reason.
  explicit PrivateFile(const std::string& path);

  // Appends to what was written before. Throws like the constructor.
  void write(std::string_view text);

 private:
  [[noreturn]] void fail() const;

  std::string path_;
  Descriptor file_;
  bool isEmpty_ = false;
};

}  // namespace palaver::cli
