#include "apple-stand-ins/helper/SteppedRunLoop.h"

#include <dispatch/dispatch.h>

#include "simulator/stepped/SteppedMainQueue.h"

namespace palaver {

namespace {

// Exceeds any test's duration. The timeline wakes the waiting thread.
constexpr double forEver = 24 * 60 * 60 * 1000;  // ms

}  // namespace

std::unique_ptr<Semaphore> SteppedRunLoop::makeSemaphore() {
  return std::make_unique<SteppedSemaphore>(real_.makeSemaphore(), timeline_);
}

void SteppedRunLoop::runSlice(double milliseconds) {
  const auto number = ++slices_;
  running_ = number;
  // A slice ends after any delivery, even an empty block.
  timeline_.scheduleTimeout(milliseconds, [this, number] {
    if (running_ == number)
      dispatch_async(dispatch_get_main_queue(), ^{
                     });
  });
  real_.runSlice(forEver);
  running_ = 0;
}

}  // namespace palaver
