#include "platform/posix/ThreadedMainQueue.h"

#include <cassert>
#include <utility>

#include "platform/posix/ThreadSemaphore.h"

namespace palaver {

void ThreadedMainQueue::async(Job job) {
  bool wasIdle;
  {
    const std::lock_guard guard(lock_);
    wasIdle = jobs_.empty();
    jobs_.push_back(std::move(job));
  }
  // The main thread takes all queued jobs together, so only the first needs to wake it.
  if (wasIdle) queued_.notify_one();
}

void ThreadedMainQueue::serve() {
  assert(isCurrent());
  std::vector<Job> taken;
  for (;;) {
    {
      std::unique_lock guard(lock_);
      queued_.wait(guard, [this] { return !jobs_.empty(); });
      std::swap(taken, jobs_);
    }
    for (auto& job : taken) {
      job();
      job = nullptr;  // destroys what the job holds
    }
    taken.clear();
  }
}

void ThreadedMainQueue::runSlice(double /*milliseconds*/) {
  assert(isCurrent());
}

std::unique_ptr<Semaphore> ThreadedMainQueue::makeSemaphore() {
  return std::make_unique<ThreadSemaphore>();
}

}  // namespace palaver
