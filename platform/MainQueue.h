// Runs jobs on the main thread, one at a time, and offers two ways to wait there without running queued jobs.
//
// Three kinds of waiting are kept apart, here and in simulation:
//   semaphore wait  time passes and other threads run; nothing is delivered on the main thread
//   run-loop slice  the platform's main-thread callbacks run; queued jobs do not
//   main queue      queued jobs run, one at a time, with platform callbacks between them
#pragma once

#include <cstdlib>
#include <memory>

#include "platform/UniqueFunction.h"

namespace palaver {

// Counting semaphore. Starts at zero.
class Semaphore {
 public:
  virtual ~Semaphore() = default;

  // Releases one waiter. Any thread.
  virtual void signal() = 0;

  // Waits for a signal for at most `timeoutMilliseconds`. Returns true when signalled, false on
  // time-out. Any thread.
  virtual bool wait(double timeoutMilliseconds) = 0;

 protected:
  Semaphore() = default;
  Semaphore(const Semaphore&) = default;
  Semaphore& operator=(const Semaphore&) = default;
};

class MainQueue {
 public:
  using Job = UniqueFunction<void()>;

  virtual ~MainQueue() = default;

  // Queues a job after all jobs queued before. Any thread. Returns immediately. Jobs run and are destroyed on
  // the main thread, one at a time. A job must not throw.
  virtual void async(Job job) = 0;

  // Serves the queue on the calling thread, which must be the main thread. Does not return: the process ends
  // through Process::exit. (In simulation the exception of Process::exit leaves it.)
  [[noreturn]] void run() {
    serve();
    std::abort();
  }

  // Waits for at most `milliseconds` and delivers the platform's own main-thread callbacks. Queued jobs do
  // not run. May return early, or immediately if the platform has nothing to deliver. Main thread, also
  // inside a job.
  virtual void runSlice(double milliseconds) = 0;

  // Creates a semaphore that waits in this platform's time. Any thread.
  virtual std::unique_ptr<Semaphore> makeSemaphore() = 0;

  // Returns whether the caller is on the main thread, for assertions.
  virtual bool isCurrent() const = 0;

 protected:
  virtual void serve() = 0;  // does not return

  MainQueue() = default;
  MainQueue(const MainQueue&) = default;
  MainQueue& operator=(const MainQueue&) = default;
};

}  // namespace palaver
