// Where the tasks of Swift run.
#pragma once

namespace palaver {

// From now on all tasks of this process run on one thread of their own, in the order in which they become
// ready, rather than on as many as there are processors. Two sources then do the same things in the same
// order in every run. Main thread, once, before the first task.
void runSwiftTasksOneByOne();

}  // namespace palaver
