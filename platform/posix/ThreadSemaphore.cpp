#include "platform/posix/ThreadSemaphore.h"

#include <chrono>

namespace palaver {

void ThreadSemaphore::signal() {
  {
    const std::lock_guard guard(lock_);
    ++count_;
  }
  signalled_.notify_one();
}

bool ThreadSemaphore::wait(double timeoutMilliseconds) {
  std::unique_lock guard(lock_);
  const auto timeout = std::chrono::duration<double, std::milli>(timeoutMilliseconds);
  if (!signalled_.wait_for(guard, timeout, [this] { return count_ > 0; })) return false;
  --count_;
  return true;
}

}  // namespace palaver
