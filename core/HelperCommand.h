// One command of the host, as decoded from one line of standard input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "core/AudioSource.h"

namespace palaver {

// Every text is a view into the decoded line, which must outlive the command. All fields but `type` are
// optional; a key that is missing or null leaves its field absent.
struct HelperCommand {
  std::string_view type;
  std::optional<std::string_view> sessionId;
  std::optional<AudioSource> source;
  std::optional<std::string_view> locale;                   // locale identifier, such as "ja-JP"
  std::optional<std::vector<std::string_view>> vocabulary;  // phrases to prefer
  std::optional<std::int64_t> sequence;                     // the host's running number of the chunk
  std::optional<double> capturedAt;                         // ms since the Unix epoch
  std::optional<std::string_view> pcmBase64;                // 16 kHz mono little-endian 16-bit samples
  std::optional<bool> suppressed;
  std::optional<double> sentAt;  // ms, the host's clock
};

// Why a line is not a command: short English that never repeats the payload.
class DecodingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Bytes behind a line that the decoder may overwrite (the first) or read.
inline constexpr std::size_t decodingPadding = 16;

// Arrays and objects nested deeper than this are refused.
inline constexpr int maxNestingDepth = 512;

// Decodes one line strictly: one object of RFC 8259 JSON in valid UTF-8, known keys with the right types,
// unknown keys ignored, the first of a repeated key counts. The value of "sequence" must be whole (3 or 3.0)
// and fit.
//
// Works in place: the `length` bytes of `line` and the byte behind them are overwritten, and decodingPadding
// bytes behind the line must belong to the caller. Throws DecodingError. Any thread.
HelperCommand decodeHelperCommand(char* line, std::size_t length);

}  // namespace palaver
