// Implements the main queue with a locked queue and a condition variable.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/MainQueue.h"

namespace palaver {

// For systems that deliver no callbacks on the main thread. A run-loop slice therefore returns immediately.
// Create on the main thread.
class ThreadedMainQueue final : public MainQueue {
 public:
  void async(Job job) override;
  void runSlice(double milliseconds) override;
  std::unique_ptr<Semaphore> makeSemaphore() override;
  bool isCurrent() const override { return std::this_thread::get_id() == mainThread_; }

 private:
  void serve() override;

  const std::thread::id mainThread_ = std::this_thread::get_id();
  std::mutex lock_;
  std::condition_variable queued_;
  std::vector<Job> jobs_;
};

}  // namespace palaver
