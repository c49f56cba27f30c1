// Decodes a line of input in its own memory, for tests of the decoder.
#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "core/HelperCommand.h"

namespace palaver {

// Owns exactly the bytes that the decoder may access, so that the address sanitizer reports any further byte.
// The padding holds quotation marks, which make a decoder fail visibly when it reads them as input.
class DecodedLine {
 public:
  explicit DecodedLine(std::string_view text, const VectorKernels& kernels = fastestVectorKernels())
      : size_(text.size()), bytes_(std::make_unique_for_overwrite<char[]>(size_ + decodingPadding)) {
    std::fill_n(std::copy(text.begin(), text.end(), bytes_.get()), decodingPadding, '"');
    try {
      command_ = decodeHelperCommand(bytes_.get(), size_, kernels);
    } catch (const DecodingError& error) {
      failure_ = error.what();
    }
  }

  bool accepted() const { return failure_.empty(); }
  const std::string& failure() const { return failure_; }
  const HelperCommand& command() const { return command_; }

  // Whether the text is a view into the line.
  bool holds(std::string_view text) const {
    const std::less_equal<const char*> notAfter;
    return notAfter(bytes_.get(), text.data()) && notAfter(text.data() + text.size(), bytes_.get() + size_);
  }

 private:
  std::size_t size_;
  std::unique_ptr<char[]> bytes_;
  HelperCommand command_;
  std::string failure_;
};

}  // namespace palaver
