// Runs the simulated helper as a process whose time and machine another process controls.
#pragma once

#include <span>

namespace palaver {

// Runs the helper with the given arguments on the process's own streams and threads. Services and time follow
// the control channel. Ends the process.
[[noreturn]] void runStepped(std::span<char*> arguments);

}  // namespace palaver
