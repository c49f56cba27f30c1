// Strict Base64 decoding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace palaver {

// Bytes that decodeBase64 may write for a text of the given length.
constexpr std::size_t base64BufferSize(std::size_t characters) {
  return characters / 4 * 3;
}

// Decodes standard Base64 (RFC 4648, section 4) into `bytes`, which has room for
// base64BufferSize(text.size()). Only the alphabet and correct padding are accepted: no line breaks, spaces
// or missing padding. Returns the number of decoded bytes, or none when the text is not valid; `bytes` is
// then undefined. Any thread.
std::optional<std::size_t> decodeBase64(std::string_view text, std::uint8_t* bytes);

}  // namespace palaver
