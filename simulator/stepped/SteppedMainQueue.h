// The main thread of a helper in stepped time: the queue is a real one, and waits take the time that they are
// given.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>

#include "platform/MainQueue.h"
#include "simulator/stepped/SteppedTimeline.h"

namespace palaver {

// A real semaphore whose time-outs come from the timeline. One thread waits at a time.
class SteppedSemaphore final : public Semaphore {
 public:
  // The timeline must live until the process ends.
  SteppedSemaphore(std::unique_ptr<Semaphore> real, SteppedTimeline& timeline)
      : state_(std::make_shared<State>(std::move(real))), timeline_(timeline) {}

  void signal() override;
  bool wait(double timeoutMilliseconds) override;

 private:
  struct State {
    explicit State(std::unique_ptr<Semaphore> semaphore) : real(std::move(semaphore)) {}

    const std::unique_ptr<Semaphore> real;
    std::mutex lock;
    int count = 0;            // signals not waited for
    std::uint64_t waits = 0;  // begun
    bool isWaiting = false;
    bool hasTimedOut = false;  // one signal of the real semaphore stands for the time-out
  };

  const std::shared_ptr<State> state_;  // shared with the time-outs, which come also after the wait
  SteppedTimeline& timeline_;
};

// For main queues whose own slices deliver nothing: callbacks are kept here, and delivered as the main thread
// of macOS does, in slices and between the jobs of the queue. Lives until the process ends.
class SteppedMainQueue final : public MainQueue {
 public:
  SteppedMainQueue(MainQueue& real, SteppedTimeline& timeline);

  void async(Job job) override { real_.async(std::move(job)); }
  void runSlice(double milliseconds) override;
  std::unique_ptr<Semaphore> makeSemaphore() override;
  bool isCurrent() const override { return real_.isCurrent(); }

  // Whether a slice entered from inside a queued job delivers callbacks. When not, it returns at once.
  void setSlicesDeliverInsideJobs(bool deliver);

 private:
  void serve() override;
  void deliver(Job callback);
  void runCallback(std::unique_lock<std::mutex> guard);

  MainQueue& real_;
  SteppedTimeline& timeline_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<Job> callbacks_;
  std::uint64_t slices_ = 0;         // begun
  std::uint64_t timedOutSlice_ = 0;  // the last one that has timed out
  bool isServing_ = false;
  bool slicesDeliverInsideJobs_ = true;
};

}  // namespace palaver
