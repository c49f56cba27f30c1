// Simulated work in real time, on several threads of its own.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "simulator/machine/Timeline.h"

namespace palaver {

// Runs everything in the background; each stream has one of the threads, so that its jobs keep their order.
class ThreadedTimeline final : public Timeline {
 public:
  explicit ThreadedTimeline(std::size_t threads);
  ~ThreadedTimeline() override;

  // Waits for the jobs that run, drops those that have not, and runs none from then on. What jobs use, such
  // as the executors of their completions, may go afterwards.
  void end();

  double now() const override;
  void schedule(double delay, Context context, const void* stream, Job job) override;
  bool hasEnded() const override { return false; }

 private:
  class Worker;

  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::vector<std::unique_ptr<Worker>> workers_;
};

}  // namespace palaver
