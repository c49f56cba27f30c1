#include "platform/posix/ThreadedMainQueue.h"

#include <cassert>
#include <chrono>
#include <utility>

namespace palaver {

namespace {

class ThreadSemaphore final : public Semaphore {
 public:
  void signal() override {
    {
      const std::lock_guard guard(lock_);
      ++count_;
    }
    signalled_.notify_one();
  }

  bool wait(double timeoutMilliseconds) override {
    std::unique_lock guard(lock_);
    const auto timeout = std::chrono::duration<double, std::milli>(timeoutMilliseconds);
    if (!signalled_.wait_for(guard, timeout, [this] { return count_ > 0; })) return false;
    --count_;
    return true;
  }

 private:
  std::mutex lock_;
  std::condition_variable signalled_;
  int count_ = 0;
};

}  // namespace

void ThreadedMainQueue::async(Job job) {
  bool wasIdle;
  {
    const std::lock_guard guard(lock_);
    wasIdle = jobs_.empty();
    jobs_.push_back(std::move(job));
  }
  // The main thread takes all queued jobs at once, so only the first needs to wake it.
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
      job = nullptr;  // what a job holds goes with it
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
