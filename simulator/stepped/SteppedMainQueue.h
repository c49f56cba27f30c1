// Wraps a helper's main queue and semaphores so that stepped time decides when waits time out.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>

#include "platform/MainQueue.h"
#include "simulator/stepped/SteppedTimeline.h"

namespace palaver {

// Wraps a real semaphore and takes its time-outs from the timeline. One thread waits at a time.
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
    int count = 0;            // signals not yet consumed
    std::uint64_t waits = 0;  // started
    bool isWaiting = false;
    bool hasTimedOut = false;  // one signal of the real semaphore belongs to the time-out
  };

  const std::shared_ptr<State> state_;  // shared with time-outs, which may fire after the wait
  SteppedTimeline& timeline_;
};

// Wraps a main queue whose slices deliver no callbacks. Stores callbacks and delivers them as the macOS main
// thread does: in slices and between queued jobs. Lives until the process ends.
class SteppedMainQueue final : public MainQueue {
 public:
  SteppedMainQueue(MainQueue& real, SteppedTimeline& timeline);

  void async(Job job) override { real_.async(std::move(job)); }
  void runSlice(double milliseconds) override;
  std::unique_ptr<Semaphore> makeSemaphore() override;
  bool isCurrent() const override { return real_.isCurrent(); }

  // Sets whether a slice entered from a queued job delivers callbacks. If not, it returns immediately.
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
  std::uint64_t slices_ = 0;         // started
  std::uint64_t timedOutSlice_ = 0;  // the last one that timed out
  bool isServing_ = false;
  bool slicesDeliverInsideJobs_ = true;
};

}  // namespace palaver
