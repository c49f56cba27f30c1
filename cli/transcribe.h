// Runs `palaver-stt transcribe`: streams sound files to the helper as a host does.
#pragma once

#include <span>
#include <string>

namespace palaver::cli {

// `arguments`: those after the command's name. Returns the exit status: 0 success, 1 failure. Throws
// UsageError or another std::exception with a message for the user. Main thread.
int transcribe(std::span<const std::string> arguments);

}  // namespace palaver::cli
