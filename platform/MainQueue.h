// The main thread: a serial queue of jobs, and the two ways of waiting on it without serving that queue.
//
// Three kinds of waiting are kept apart, here and in simulation:
//   - a semaphore wait: time passes and other threads run, nothing is delivered on the main thread;
//   - a run-loop slice: callbacks that the platform delivers on the main thread run, queued jobs do not;
//   - the main queue itself: queued jobs run, one at a time, and platform callbacks between them.
#pragma once

#include <cstdlib>
#include <memory>

#include "platform/UniqueFunction.h"

namespace palaver {

// A counting semaphore that starts at zero.
class Semaphore {
 public:
  virtual ~Semaphore() = default;

  // Lets one waiter through. Any thread.
  virtual void signal() = 0;

  // Waits for a signal for at most the given time (ms). True when signalled, false on time-out. Any thread.
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

  // Queues a job behind all jobs queued before. Any thread; returns at once. Jobs run on the main thread, one
  // at a time, and are destroyed there. A job must not throw.
  virtual void async(Job job) = 0;

  // Serves the queue on the calling thread, which must be the main thread. Does not return: the process ends
  // through Process::exit. (In simulation it returns by the exception of Process::exit.)
  [[noreturn]] void run() {
    serve();
    std::abort();
  }

  // Waits for at most the given time (ms) while the platform's own main-thread callbacks are delivered;
  // queued jobs are not. May return early, also at once where nothing could be delivered. Main thread, also
  // from inside a job.
  virtual void runSlice(double milliseconds) = 0;

  // A semaphore whose waits belong to this platform's time. Any thread.
  virtual std::unique_ptr<Semaphore> makeSemaphore() = 0;

  // Whether the caller is on the main thread; for assertions.
  virtual bool isCurrent() const = 0;

 protected:
  virtual void serve() = 0;  // does not return

  MainQueue() = default;
  MainQueue(const MainQueue&) = default;
  MainQueue& operator=(const MainQueue&) = default;
};

}  // namespace palaver
