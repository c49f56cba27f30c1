#include "tests/apple/helper/SwiftTasks.h"

#include <dispatch/dispatch.h>

#include <cstdint>

extern "C" {

// Of Swift's runtime, which exports these for executors of other makes. Source: the Swift project's
// include/swift/Runtime/Concurrency.h.
struct SwiftJob;
struct SwiftSerialExecutor {
  void* identity;
  std::uintptr_t implementation;  // both 0 for the global executor
};
using SwiftEnqueue = __attribute__((swiftcall)) void (*)(SwiftJob* job);
using SwiftEnqueueHook = __attribute__((swiftcall)) void (*)(SwiftJob* job, SwiftEnqueue original);
extern SwiftEnqueueHook swift_task_enqueueGlobal_hook;
__attribute__((swiftcall)) void swift_job_run(SwiftJob* job, SwiftSerialExecutor executor);
}

namespace palaver {

namespace {

dispatch_queue_t tasks = nullptr;

__attribute__((swiftcall)) void enqueue(SwiftJob* job, SwiftEnqueue /*original*/) {
  dispatch_async(tasks, ^{
    swift_job_run(job, {nullptr, 0});
  });
}

}  // namespace

void runSwiftTasksOneByOne() {
  tasks = dispatch_queue_create("PalaverSTTHelper.swift-tasks", DISPATCH_QUEUE_SERIAL);
  swift_task_enqueueGlobal_hook = enqueue;
}

}  // namespace palaver
