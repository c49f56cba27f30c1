#include "platform/macos/RunLoopMainQueue.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "platform/macos/AutoreleasePool.h"
#include "platform/posix/ThreadSemaphore.h"

namespace palaver {

namespace {

// Practically forever: 30 years.
constexpr CFTimeInterval longTime = 1e9;

CFRunLoopSourceRef makeIdleSource() {
  CFRunLoopSourceContext context{};
  context.perform = [](void*) {};
  return CFRunLoopSourceCreate(nullptr, 0, &context);
}

}  // namespace

RunLoopMainQueue::RunLoopMainQueue()
    : mode_(CFStringCreateWithCString(nullptr, "PalaverSTTHelper.jobs", kCFStringEncodingUTF8)),
      idleSource_(makeIdleSource()) {
  assert(CFRunLoopGetCurrent() == loop_);
  // The dispatch main queue is served in common modes only.
  CFRunLoopAddCommonMode(loop_, mode_.get());
  // A run loop returns immediately from a mode without sources. With this source every mode waits.
  CFRunLoopAddSource(loop_, idleSource_.get(), kCFRunLoopCommonModes);
}

RunLoopMainQueue::~RunLoopMainQueue() {
  CFRunLoopSourceInvalidate(idleSource_.get());
}

void RunLoopMainQueue::async(Job job) {
  // Moved instead of copied into the block, so that the sender keeps nothing that the job holds.
  auto* const held = new Job(std::move(job));
  const CFRunLoopRef loop = loop_;
  CFRunLoopPerformBlock(loop, mode_.get(), ^{
    {
      const AutoreleasePool pool;
      const std::unique_ptr<Job> mine(held);
      (*mine)();
    }
    // A slice inside the job may have consumed the wake-up of jobs queued meanwhile. Without this one the run
    // loop would sleep although they are queued.
    CFRunLoopWakeUp(loop);
  });
  CFRunLoopWakeUp(loop_);
}

void RunLoopMainQueue::runSlice(double milliseconds) {
  assert(isCurrent());
  const AutoreleasePool pool;
  // Returns after a delivery, so that the caller does not wait for the rest of the slice.
  CFRunLoopRunInMode(kCFRunLoopDefaultMode, std::max(milliseconds, 0.0) / 1000, true);
}

void RunLoopMainQueue::serveOnce() {
  assert(isCurrent());
  const AutoreleasePool pool;  // for one delivery; jobs have their own
  CFRunLoopRunInMode(mode_.get(), longTime, true);
}

void RunLoopMainQueue::serve() {
  for (;;) serveOnce();
}

std::unique_ptr<Semaphore> RunLoopMainQueue::makeSemaphore() {
  return std::make_unique<ThreadSemaphore>();
}

}  // namespace palaver
