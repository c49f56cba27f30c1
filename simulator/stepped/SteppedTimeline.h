// Time that stands still until somebody outside of the process moves it, for a helper on real threads.
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

// Jobs run on the thread that moves the time, except those that are callbacks on the main thread: they are
// handed on when they fall due. Lives until the process ends.
class SteppedTimeline final : public Timeline {
 public:
  // Takes a callback to the main thread, which runs it when it is willing to.
  using CallbackDelivery = std::function<void(Job)>;

  // Before anything is scheduled. Without it callbacks run in the background.
  void setCallbackDelivery(CallbackDelivery deliver) { deliver_ = std::move(deliver); }

  double now() const override { return now_; }
  void schedule(double delay, Context context, const void* stream, Job job) override;
  bool hasEnded() const override { return false; }

  // The end of a wait: runs `delay` ms from now, behind all that falls due at that time. Any thread.
  void scheduleTimeout(double delay, Job job);

  // When the next job falls due (ms), or none. Any thread.
  std::optional<double> nextDue() const;

  // Whether what falls due at the very end of a step counts as well.
  enum class End { excluded, included };

  // Moves the time to the next job that falls due before `time` (ms) and runs it: true. With none, moves it
  // to `time`: false. One thread.
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

// Shows stepped time as a wall clock that read `startsAt` (ms since the Unix epoch) at its beginning.
class SteppedClock final : public Clock {
 public:
  SteppedClock(const SteppedTimeline& timeline, double startsAt) : timeline_(timeline), startsAt_(startsAt) {}

  double nowMilliseconds() const override { return startsAt_ + timeline_.now() + shift_; }

  // Sets the clock as far ahead (or back) of its regular time, in ms. Any thread.
  void setShift(double shift) { shift_ = shift; }

 private:
  const SteppedTimeline& timeline_;
  const double startsAt_;
  std::atomic<double> shift_{0};
};

}  // namespace palaver
