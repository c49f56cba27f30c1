// Runs the helper, from its arguments to its end, on the given platform.
#pragma once

namespace palaver {

struct Platform;

// Selects the mode by the first argument, runs it, and ends the process through Process::exit. Main thread.
[[noreturn]] void runHelper(Platform& platform);

}  // namespace palaver
