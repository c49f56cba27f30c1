// Implements a timeline that another process advances, for a helper on real threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include "platform/Clock.h"
#include "simulator/machine/Timeline.h"

namespace palaver {

// Runs jobs on the thread that advances the time. Callbacks for the main thread are handed over when they
// fall due. Lives until the process ends.
class SteppedTimeline final : public Timeline {
 public:
  // Delivers a callback to the main thread, which decides when to run it.
  using CallbackDelivery = std::function<void(Job)>;

  // Must be called before anything is scheduled. Without it callbacks run on the advancing thread.
  void setCallbackDelivery(CallbackDelivery deliver) { deliver_ = std::move(deliver); }

  double now() const override { return now_; }
  void schedule(double delay, Context context, const void* stream, Job job) override;
  bool hasEnded() const override { return false; }

  // Schedules the end of a wait: runs `delay` ms from now, after everything else due at that time. Any
  // thread.
  void scheduleTimeout(double delay, Job job);

  // Returns when the next job is due (ms), or none. Any thread.
  std::optional<double> nextDue() const;

  // Says whether jobs due exactly at the end of a step run.
  enum class End { excluded, included };

  // Moves the time to the next job due before `time` (ms), runs it and returns true. Without such a job,
  // moves the time to `time` and returns false. One thread.
  bool runNext(double time, End end);

 private:
  enum class Rank { job, timeout };
  struct Key {
    double time;
    Rank rank;
    std::uint64_t sequence;
    auto operator<=>(const Key&) const = default;
  };

  void insert(double delay, Rank rank, Job job);
  std::optional<Job> takeNext(double time, End end);

  CallbackDelivery deliver_;
  std::atomic<double> now_{0};  // ms; changed with the lock held
  mutable std::mutex lock_;
  std::map<Key, Job> jobs_;
  std::uint64_t sequence_ = 0;
};

// Shows stepped time as a wall clock. `startsAt` is its value at time 0, ms since the Unix epoch.
class SteppedClock final : public Clock {
 public:
  SteppedClock(const SteppedTimeline& timeline, double startsAt) : timeline_(timeline), startsAt_(startsAt) {}

  double nowMilliseconds() const override { return startsAt_ + timeline_.now() + shift_; }

  // Shifts the clock by that many ms, forward or back. Any thread.
  void setShift(double shift) { shift_ = shift; }

 private:
  const SteppedTimeline& timeline_;
  const double startsAt_;
  std::atomic<double> shift_{0};
};

}  // namespace palaver
