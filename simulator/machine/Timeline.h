// Schedules later work of the simulated platform, in virtual time (Scheduler) or in wall time.
#pragma once

#include "platform/UniqueFunction.h"

namespace palaver {

class Timeline {
 public:
  using Job = UniqueFunction<void()>;

  // Where a job runs: beside the main thread, or on the main thread as a callback of the platform. A timeline
  // whose main thread delivers no callbacks runs both in the background.
  enum class Context { background, mainThreadCallback };

  virtual ~Timeline() = default;

  // Returns the milliseconds since the timeline began.
  virtual double now() const = 0;

  // Runs a job `delay` ms (not negative) from now. Jobs of one stream run in the order in which they are due.
  // A stream is an address that is only compared. Any thread.
  virtual void schedule(double delay, Context context, const void* stream, Job job) = 0;

  // Returns whether the simulated process has ended or is being torn down, so that later effects
  // do not count.
  virtual bool hasEnded() const = 0;

 protected:
  Timeline() = default;
  Timeline(const Timeline&) = default;
  Timeline& operator=(const Timeline&) = default;
};

}  // namespace palaver
