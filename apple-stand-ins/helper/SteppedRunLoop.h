// Runs the real run loop of the main thread in stepped time: the timeline decides when slices end.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/MainQueue.h"
#include "simulator/stepped/SteppedTimeline.h"

namespace palaver {

// Lives until the process ends.
class SteppedRunLoop final : public MainQueue {
 public:
  SteppedRunLoop(MainQueue& real, SteppedTimeline& timeline) : real_(real), timeline_(timeline) {}

  void async(Job job) override { real_.async(std::move(job)); }
  void runSlice(double milliseconds) override;
  std::unique_ptr<Semaphore> makeSemaphore() override;
  bool isCurrent() const override { return real_.isCurrent(); }

 private:
  void serve() override { real_.run(); }

  MainQueue& real_;
  SteppedTimeline& timeline_;
  std::uint64_t slices_ = 0;               // started
  std::atomic<std::uint64_t> running_{0};  // number of the running slice, or 0
};

}  // namespace palaver
