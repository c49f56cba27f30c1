// Runs `palaver-stt record` and `palaver-stt replay`.
#pragma once

#include <span>
#include <string>

namespace palaver::cli {

// Stands between a host and the helper: passes every byte on, and records it. `arguments`: those after the
// command's name. Returns the exit status of the helper, or 1 when a signal ended it. Throws UsageError or
// another std::exception with a message for the user. Main thread.
int record(std::span<const std::string> arguments);

// Says to a helper what the host of a recording said, at its pace, and compares the finals. Returns 0 when
// they are the same, else 1. Throws like record().
int replay(std::span<const std::string> arguments);

}  // namespace palaver::cli
