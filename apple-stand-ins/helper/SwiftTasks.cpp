#include "apple-stand-ins/helper/SwiftTasks.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>

extern "C" {

// Types of Swift's runtime, which exports these functions for custom executors. Source: the Swift project's
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

// Lives until the process ends.
class TaskThread {
 public:
  TaskThread() {
    std::thread([this] { serve(); }).detach();
  }

  void add(SwiftJob* job) {
    {
      const std::lock_guard guard(lock_);
      jobs_.push_back(job);
    }
    added_.notify_one();
  }

 private:
  [[noreturn]] void serve() {
    std::unique_lock guard(lock_);
    for (;;) {
      added_.wait(guard, [this] { return !jobs_.empty(); });
      auto* const job = jobs_.front();
      jobs_.pop_front();
      guard.unlock();
      swift_job_run(job, {nullptr, 0});
      guard.lock();
    }
  }

  std::mutex lock_;
  std::condition_variable added_;
  std::deque<SwiftJob*> jobs_;
};

TaskThread* tasks = nullptr;

__attribute__((swiftcall)) void enqueue(SwiftJob* job, SwiftEnqueue /*original*/) {
  tasks->add(job);
}

}  // namespace

void runSwiftTasksOneByOne() {
  tasks = new TaskThread;
  swift_task_enqueueGlobal_hook = enqueue;
}

}  // namespace palaver
