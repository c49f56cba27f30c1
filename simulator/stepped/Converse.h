// Plays scenarios against a helper in another process, on its real streams and threads.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "simulator/scenario/Scenario.h"

namespace palaver {

// Holds the outcome of a scenario.
struct ConversationOutcome {
  std::optional<std::string> skipped;  // why it could not be played
  std::optional<std::string> report;   // readable description of the mismatches
};

// Plays a scenario once and ignores its seeds, because an expectation that holds for several seeds holds for
// any order. `command` is a program that serves the control channel, with its arguments; the scenario's
// arguments are appended. `bound` is the real time that any operation may take before the program counts as
// hanging. SIGPIPE must be ignored. Throws std::system_error when the program cannot be started.
ConversationOutcome converse(const Scenario& scenario, std::vector<std::string> command,
                             std::chrono::milliseconds bound = std::chrono::seconds(20));

}  // namespace palaver
