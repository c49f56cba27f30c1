// Implements the main queue with jobs on the run loop of the macOS main thread.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <memory>
#include <thread>
#include <type_traits>

#include "platform/MainQueue.h"

namespace palaver {

// The run loop runs in its own mode, and jobs are blocks of that mode. A slice runs the default mode: it
// serves the dispatch main queue, on which the recognizer delivers results, but no job. If jobs were blocks
// of the dispatch main queue, a slice inside a job could not receive results, because that queue is not
// served from inside one of its own blocks.
//
// Main-thread callbacks of the system are also delivered between jobs. Each job, each slice and each delivery
// has an autorelease pool.
//
// Create on the main thread, once per process. Lives until the process ends.
class RunLoopMainQueue : public MainQueue {
 public:
  RunLoopMainQueue();
  ~RunLoopMainQueue() override;
  RunLoopMainQueue(const RunLoopMainQueue&) = delete;
  RunLoopMainQueue& operator=(const RunLoopMainQueue&) = delete;

  void async(Job job) override;
  void runSlice(double milliseconds) override;
  std::unique_ptr<Semaphore> makeSemaphore() override;
  bool isCurrent() const override { return std::this_thread::get_id() == mainThread_; }

 protected:
  // Waits for the next job or system callback, and runs it. May run several jobs. Returns early after
  // CFRunLoopStop() on the main run loop. Main thread.
  void serveOnce();

 private:
  struct Release {
    void operator()(CFTypeRef object) const { CFRelease(object); }
  };
  template <typename Reference>
  using Owned = std::unique_ptr<std::remove_pointer_t<Reference>, Release>;

  void serve() override;

  const std::thread::id mainThread_ = std::this_thread::get_id();
  const CFRunLoopRef loop_ = CFRunLoopGetMain();
  const Owned<CFStringRef> mode_;
  const Owned<CFRunLoopSourceRef> idleSource_;
};

}  // namespace palaver
