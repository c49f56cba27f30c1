// Decodes Base64 strictly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "core/VectorKernels.h"

namespace palaver {

// Returns the number of bytes that a text of the given length decodes to at most.
constexpr std::size_t base64BufferSize(std::size_t characters) {
  return characters / 4 * 3;
}

// Returns the number of bytes that a text decodes to if it is valid, by its length and its padding.
constexpr std::size_t decodedBase64Size(std::string_view text) {
  const std::size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  return text.size() < 4 ? 0 : base64BufferSize(text.size()) - padding;
}

// Decodes standard Base64 (RFC 4648, section 4) into `bytes`, which must have room for
// decodedBase64Size(text). Accepts only the alphabet and correct padding: no line breaks, no spaces, no
// missing padding. Returns the number of decoded bytes and writes no more than these, or returns none when
// the text is invalid. In that case the content of `bytes` is undefined. Any thread.
std::optional<std::size_t> decodeBase64(std::string_view text, std::uint8_t* bytes,
                                        const VectorKernels& kernels = fastestVectorKernels());

}  // namespace palaver
