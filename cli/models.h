// Runs `palaver-stt models`.
#pragma once

#include <span>
#include <string>

namespace palaver::cli {

// Takes the arguments after "models". Returns the exit status. Throws UsageError, or another exception with a
// message for the user.
int models(std::span<const std::string> arguments);

}  // namespace palaver::cli
