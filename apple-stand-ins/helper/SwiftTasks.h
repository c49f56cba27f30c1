// Chooses the thread that runs Swift tasks.
#pragma once

namespace palaver {

// Runs all later Swift tasks of this process on one thread, in the order in which they become ready, instead
// of one thread per processor. Two sources then act in the same order in every run. Main thread, once, before
// the first task.
void runSwiftTasksOneByOne();

}  // namespace palaver
