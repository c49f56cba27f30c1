// The main queue as the main thread of macOS has it: jobs on its run loop.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <memory>
#include <thread>
#include <type_traits>

#include "platform/MainQueue.h"

namespace palaver {

// The run loop runs in a mode of its own, and jobs are blocks of that mode. A slice runs the default mode: it
// serves the dispatch main queue, on which the recognizer answers, but no job. Were jobs blocks of the
// dispatch main queue instead, a slice inside a job could not hear the recognizer, as that queue is not
// served from inside one of its own blocks.
//
// What the system delivers on the main thread is delivered between jobs too. Each job, each slice and each
// delivery has an autorelease pool.
//
// Made on the main thread, one in a process; lives until the process ends.
class RunLoopMainQueue final : public MainQueue {
 public:
  RunLoopMainQueue();
  ~RunLoopMainQueue() override;
  RunLoopMainQueue(const RunLoopMainQueue&) = delete;
  RunLoopMainQueue& operator=(const RunLoopMainQueue&) = delete;

  void async(Job job) override;
  void runSlice(double milliseconds) override;
  std::unique_ptr<Semaphore> makeSemaphore() override;
  bool isCurrent() const override { return std::this_thread::get_id() == mainThread_; }

  // Serves the queue as run() does, until stop() is called from a job or from what is delivered between jobs.
  // For tests; main thread.
  void serveUntilStopped();
  void stop();

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
  bool isStopped_ = false;
};

}  // namespace palaver
