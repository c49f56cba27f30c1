// Runs the main thread's run loop in tests. Main thread only, not inside a block of the main dispatch queue.
#pragma once

#include <functional>

namespace palaver {

// Runs all blocks currently on the main dispatch queue.
void drainMainQueue();

// Serves the main dispatch queue until the condition holds. Returns false after a time-out that slow machines
// do not reach.
bool serveMainQueueUntil(const std::function<bool()>& condition);

}  // namespace palaver
