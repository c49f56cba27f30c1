// Decodes one line of stdin into one command of the host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "core/AudioSource.h"
#include "core/VectorKernels.h"

namespace palaver {

// All texts are views into the decoded line, which must outlive the command. All fields but `type` are
// optional. A missing or null key leaves its field absent.
struct HelperCommand {
  std::string_view type;
  std::optional<std::string_view> sessionId;
  std::optional<AudioSource> source;
  std::optional<std::string_view> locale;                   // locale identifier, such as "ja-JP"
  std::optional<std::vector<std::string_view>> vocabulary;  // phrases to prefer
  std::optional<std::int64_t> sequence;       // running number of the chunk, counted by the host
  std::optional<double> capturedAt;           // ms since the Unix epoch
  std::optional<std::string_view> pcmBase64;  // 16 kHz mono little-endian 16-bit samples
  std::optional<bool> suppressed;
  std::optional<double> sentAt;  // ms, the host's clock
};

// Reports why a line is not a command. what() is short English that never repeats the payload.
class DecodingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Bytes after a line that the decoder may overwrite (the first) or read (all).
inline constexpr std::size_t decodingPadding = vectorPadding;

// Arrays and objects nested deeper than this are rejected.
inline constexpr int maxNestingDepth = 512;

// Decodes one line strictly: one RFC 8259 JSON object in valid UTF-8, with known keys of the right types.
// Unknown keys are ignored. The first of a repeated key counts. The value of "sequence" must be whole (3 or
// 3.0) and fit.
//
// Decodes in place. Overwrites the `length` bytes of `line` and the byte after them. The decodingPadding
// bytes after the line must belong to the caller. Throws DecodingError. Any thread.
HelperCommand decodeHelperCommand(char* line, std::size_t length,
                                  const VectorKernels& kernels = fastestVectorKernels());

// A command with the length of its text, without the line feed after it, bytes.
struct PlainCommand {
  HelperCommand command;
  std::size_t length;
};

// Decodes the command at the start of `text` if it is plain, as all audio is, in one pass that looks no
// further than a line feed. Plain are strings of ASCII without escapes, arrays of them, numbers of up to 32
// characters without an exponent, and literals. The line is whole if text[length of the result] is a line
// feed. Returns none for any other line, valid or not: decodeHelperCommand() decides on it.
//
// Leaves the `length` bytes of `text` unchanged and overwrites the byte after them. The decodingPadding bytes
// after the text must belong to the caller. Any thread.
std::optional<PlainCommand> decodePlainCommand(char* text, std::size_t length,
                                               const VectorKernels& kernels = fastestVectorKernels());

}  // namespace palaver
