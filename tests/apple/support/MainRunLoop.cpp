#include "tests/apple/support/MainRunLoop.h"

#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>

#include <chrono>

namespace palaver {

void drainMainQueue() {
  bool isReached = false;
  bool* const mark = &isReached;
  dispatch_async(dispatch_get_main_queue(), ^{
    *mark = true;
  });
  serveMainQueueUntil([&] { return isReached; });
}

bool serveMainQueueUntil(const std::function<bool()>& condition) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  // A slice ends after a delivery. Its length only bounds how late a condition that changes without a
  // delivery is noticed.
  constexpr CFTimeInterval slice = 0.05;  // s
  while (!condition()) {
    if (Clock::now() >= deadline) return false;
    CFRunLoopRunInMode(kCFRunLoopDefaultMode, slice, true);
  }
  return true;
}

}  // namespace palaver
