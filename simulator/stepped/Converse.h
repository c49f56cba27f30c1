// Plays scenarios against a helper in another process, on its real streams and threads.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "simulator/scenario/Scenario.h"

namespace palaver {

// What came of a scenario.
struct ConversationOutcome {
  std::optional<std::string> skipped;  // why it could not be played
  std::optional<std::string> report;   // what went otherwise than expected, as text for the reader
};

// Plays a scenario once, seeds aside: what holds for several of them holds for any order. `command`: a
// program that serves the control channel, and its own arguments; the scenario's follow. `bound`: how long
// (real time) it may take over anything before it counts as hanging. SIGPIPE must be ignored. Throws
// std::system_error when the program cannot be started.
ConversationOutcome converse(const Scenario& scenario, std::vector<std::string> command,
                             std::chrono::milliseconds bound = std::chrono::seconds(20));

}  // namespace palaver
