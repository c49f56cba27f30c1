// Compares decoding a line without knowing its end with decoding the line alone, for tests of the decoder.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "core/HelperCommand.h"
#include "tests/support/ReferenceDecoder.h"
#include "tests/unit/core/DecodedLine.h"

namespace palaver {

// Decodes the line at the beginning of a text, which may go on after its line feed. Returns what is wrong
// with the outcome, nothing when it is right.
inline std::string_view plainCommandFault(std::string_view text, const VectorKernels& kernels) {
  const auto bytes = std::make_unique_for_overwrite<char[]>(text.size() + decodingPadding);
  std::fill_n(std::copy(text.begin(), text.end(), bytes.get()), decodingPadding, '"');
  const auto plain = decodePlainCommand(bytes.get(), text.size(), kernels);
  if (!std::equal(text.begin(), text.end(), bytes.get())) return "the pass over plain text changes it";
  if (!plain) return {};
  if (plain->length >= text.size()) return "a plain command is as long as the text";
  if (text.substr(0, plain->length).find('\n') != std::string_view::npos)
    return "a plain command goes on after a line feed";
  if (text[plain->length] != '\n') return {};
  const DecodedLine line(text.substr(0, plain->length));
  if (!line.accepted()) return "a plain command is no command";
  if (copyOf(plain->command) != copyOf(line.command())) return "a plain command has other values";
  return {};
}

}  // namespace palaver
