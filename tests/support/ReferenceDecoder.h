// A second decoder of commands, slow and simple, for tests that compare.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/AudioSource.h"
#include "core/HelperCommand.h"

namespace palaver {

// What HelperCommand holds, but owning its texts.
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

// None when the line is no command. Built on another parser than the program's.
std::optional<ReferenceCommand> decodeReference(std::string_view line);

// Whether the program and the reference may differ about the line for one of these reasons:
//   - the reference skips a byte order mark at the start;
//   - the reference takes a NUL byte between two values for the end of the line;
//   - the program refuses nesting beyond maxNestingDepth;
//   - the program calls a number too big by its digits or its exponent alone: 0e400, or a 1 with 400 zeros
//   and
//     e-400.
//   - the reference rounds a "sequence" of more than 18 digits to a long double, and may find it whole.
// `failure` is the program's error, or empty.
bool mayDiffer(std::string_view line, std::string_view failure);

}  // namespace palaver
