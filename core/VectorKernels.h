// The innermost loops of the audio path, in plain code and with vector instructions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace palaver {

// Bytes after a text that VectorKernels::findTextEnd may read.
inline constexpr std::size_t vectorPadding = 32;

// One implementation of each loop. All implementations return the same for the same input. Any thread.
struct VectorKernels {
  std::string_view name;

  // Returns the first byte of [at, end) that cannot be part of plain text in a JSON string: a quotation mark,
  // a backslash, a control character (below 0x20) or a byte beyond ASCII. Returns `end` when there is none.
  // The vectorPadding bytes from `end` on must be readable.
  const char* (*findTextEnd)(const char* at, const char* end);

  // Decodes groups of four Base64 characters (RFC 4648, section 4) into three bytes each. Returns false when
  // a character is outside the alphabet. In that case the content of `bytes` is undefined. Padding is outside
  // the alphabet.
  bool (*decodeBase64Groups)(const char* text, std::size_t groups, std::uint8_t* bytes);

  // Returns the sum of the squares of up to 2³³ samples.
  std::uint64_t (*sumOfSquares)(const std::int16_t* samples, std::size_t count);
};

// The reference, which runs on every processor.
extern const VectorKernels plainKernels;

// Returns the implementations that this processor runs, the reference first and the fastest last.
std::span<const VectorKernels* const> supportedVectorKernels();

// Returns the fastest implementation that this processor runs.
const VectorKernels& fastestVectorKernels();

}  // namespace palaver
