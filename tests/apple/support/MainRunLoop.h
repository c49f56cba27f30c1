// The main thread's run loop, for tests whose main thread is the test's own. Main thread, not from inside a
// block of the main dispatch queue.
#pragma once

#include <functional>

namespace palaver {

// Runs all that has been put on the main dispatch queue until now.
void drainMainQueue();

// Serves the main dispatch queue until the condition holds. False after a time that no slow machine needs.
bool serveMainQueueUntil(const std::function<bool()>& condition);

}  // namespace palaver
