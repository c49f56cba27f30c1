// Decodes what the host of a scenario sends, without the helper's code, as a reference for what it must do.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "simulator/scenario/Scenario.h"

namespace palaver {

// A command as the host sent it. Keys that are absent or null are none.
struct HostCommand {
  double time = 0;  // arrival of the end of its line, ms since the start
  std::string type;
  std::optional<std::string> sessionId;
  std::optional<std::string> source;
  std::optional<std::string> locale;
  std::optional<std::vector<std::string>> vocabulary;
  bool hasSequence = false;
  std::optional<double> capturedAt;
  std::optional<std::string> pcmBase64;
  std::optional<bool> suppressed;
  std::optional<double> sentAt;

  // Returns whether no key is missing that its type requires.
  bool isComplete() const;
};

struct HostInput {
  std::vector<HostCommand> commands;  // up to and including a shutdown
  std::vector<double> undecodable;    // arrival of each line that is neither blank nor a command, ms
  std::optional<double> endsAt;       // arrival of a shutdown or of the end of input, ms
};

HostInput readHostInput(const Scenario& scenario);

// Decodes strict Base64 (RFC 4648, section 4) of 16-bit little-endian samples.
struct DecodedPayload {
  std::vector<std::int16_t> samples;
  std::optional<std::string> error;  // the code of the error that the payload causes
};
DecodedPayload decodePayload(const std::string& base64);

}  // namespace palaver
