// Decodes commands with a second, slow and simple decoder, for comparison in tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/AudioSource.h"
#include "core/HelperCommand.h"

namespace palaver {

// A HelperCommand that owns its texts.
struct ReferenceCommand {
  std::string type;
  std::optional<std::string> sessionId;
  std::optional<AudioSource> source;
  std::optional<std::string> locale;
  std::optional<std::vector<std::string>> vocabulary;
  std::optional<std::int64_t> sequence;
  std::optional<double> capturedAt;  // ms
  std::optional<std::string> pcmBase64;
  std::optional<bool> suppressed;
  std::optional<double> sentAt;  // ms

  friend bool operator==(const ReferenceCommand&, const ReferenceCommand&) = default;
};

ReferenceCommand copyOf(const HelperCommand& command);

// Returns none when the line is not a command. Uses another parser than the program.
std::optional<ReferenceCommand> decodeReference(std::string_view line);

// Whether the program and the reference may differ on the line for one of these reasons:
//   - The reference skips a byte order mark at the start.
//   - The reference treats a NUL byte between two values as the end of the line.
//   - The program rejects nesting beyond maxNestingDepth.
//   - The program rejects a number as too big by its digits or its exponent alone: 0e400, or a 1 with 400
//     zeros and e-400.
//   - The reference rounds a "sequence" of more than 18 digits to a long double, which may be whole.
// `failure` is the program's error, or empty.
bool mayDiffer(std::string_view line, std::string_view failure);

}  // namespace palaver
