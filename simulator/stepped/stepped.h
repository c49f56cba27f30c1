// The simulated helper as a process whose time and machine are in somebody else's hands.
#pragma once

#include <span>

namespace palaver {

// Runs the helper with the given arguments on the process's own streams and threads, with the services and
// the time that the control channel says. Ends the process.
[[noreturn]] void runStepped(std::span<char*> arguments);

}  // namespace palaver
