// Runs `palaver-stt report`: makes a page of a recorded meeting.
#pragma once

#include <span>
#include <string>

namespace palaver::cli {

// `arguments`: those after the command's name. Returns the exit status. Throws UsageError or another
// std::exception with a message for the user.
int report(std::span<const std::string> arguments);

}  // namespace palaver::cli
