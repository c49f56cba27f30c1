// Runs simulated work in real time, on its own threads.
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

// Runs everything in the background. Each stream is bound to one thread, so its jobs keep their order.
class ThreadedTimeline final : public Timeline {
 public:
  explicit ThreadedTimeline(std::size_t threads);
  ~ThreadedTimeline() override;

  // Blocks until the running jobs return, drops the pending ones and runs no more. Objects that jobs use,
  // such as the executors of their completions, may be destroyed afterwards.
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
