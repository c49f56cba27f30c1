// Implements a semaphore between plain C++ threads.
#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/MainQueue.h"

namespace palaver {

// Waits in real time and delivers nothing while it waits.
class ThreadSemaphore final : public Semaphore {
 public:
  void signal() override;
  bool wait(double timeoutMilliseconds) override;

 private:
  std::mutex lock_;
  std::condition_variable signalled_;
  int count_ = 0;
};

}  // namespace palaver
