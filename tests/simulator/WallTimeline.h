// Simulated work in real time: a thread that runs jobs as they fall due.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/simulated/Timeline.h"

namespace palaver {

// Runs everything in the background, as its platform's main thread delivers no callbacks. Lives until the
// process ends.
class WallTimeline final : public Timeline {
 public:
  WallTimeline();

  double now() const override;
  void schedule(double delay, Context context, const void* stream, Job job) override;
  bool hasEnded() const override { return false; }

 private:
  [[noreturn]] void serve();

  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::mutex lock_;
  std::condition_variable changed_;
  std::map<std::pair<double, std::uint64_t>, Job> jobs_;  // by time (ms) and sequence
  std::uint64_t sequence_ = 0;
};

}  // namespace palaver
