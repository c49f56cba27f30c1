// Runs the jobs of a main queue on the test's thread.
#pragma once

#include <cstdlib>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "platform/MainQueue.h"
#include "platform/posix/ThreadSemaphore.h"

namespace palaver {

// Create on the test's thread, which is the main thread.
class JobQueue final : public MainQueue {
 public:
  void async(Job job) override {
    const std::lock_guard guard(lock_);
    jobs_.push_back(std::move(job));
  }
  void runSlice(double /*milliseconds*/) override {}
  std::unique_ptr<Semaphore> makeSemaphore() override { return std::make_unique<ThreadSemaphore>(); }
  bool isCurrent() const override { return std::this_thread::get_id() == mainThread_; }

  // Runs all jobs that have been queued.
  void runAll() {
    for (;;) {
      std::vector<Job> taken;
      {
        const std::lock_guard guard(lock_);
        std::swap(taken, jobs_);
      }
      if (taken.empty()) return;
      for (auto& job : taken) job();
    }
  }

 private:
  [[noreturn]] void serve() override { std::abort(); }

  const std::thread::id mainThread_ = std::this_thread::get_id();
  std::mutex lock_;
  std::vector<Job> jobs_;
};

}  // namespace palaver
