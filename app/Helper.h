// The helper from its arguments to its end, on whatever platform it is given.
#pragma once

namespace palaver {

struct Platform;

// Chooses the mode by the first argument, runs it, and ends the process through Process::exit. Main thread.
[[noreturn]] void runHelper(Platform& platform);

}  // namespace palaver
