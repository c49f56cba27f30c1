// Runs `palaver-stt doctor`: finds out why a meeting would have no transcript.
#pragma once

#include <span>
#include <string>

namespace palaver::cli {

// `arguments`: those after the command's name. Returns the exit status: 0 when all is well, else 1. Throws
// UsageError or another std::exception with a message for the user. Main thread.
int doctor(std::span<const std::string> arguments);

}  // namespace palaver::cli
