#include "tests/simulator/WallTimeline.h"

namespace palaver {

using Milliseconds = std::chrono::duration<double, std::milli>;

WallTimeline::WallTimeline() {
  std::thread([this] { serve(); }).detach();
}

double WallTimeline::now() const {
  return Milliseconds(std::chrono::steady_clock::now() - start_).count();
}

void WallTimeline::schedule(double delay, Context /*context*/, const void* /*stream*/, Job job) {
  {
    const std::lock_guard guard(lock_);
    jobs_.emplace(std::pair(now() + delay, sequence_++), std::move(job));
  }
  changed_.notify_one();
}

void WallTimeline::serve() {
  std::unique_lock guard(lock_);
  for (;;) {
    if (jobs_.empty()) {
      changed_.wait(guard);
    } else if (const double wait = jobs_.begin()->first.first - now(); wait > 0) {
      changed_.wait_for(guard, Milliseconds(wait));
    } else {
      auto job = std::move(jobs_.begin()->second);
      jobs_.erase(jobs_.begin());
      guard.unlock();
      job();
      job = nullptr;  // what it holds goes without the lock
      guard.lock();
    }
  }
}

}  // namespace palaver
