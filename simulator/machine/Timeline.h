// Where the simulated platform puts work that is to happen later: in virtual time (Scheduler) or in wall
// time.
#pragma once

#include "platform/UniqueFunction.h"

namespace palaver {

class Timeline {
 public:
  using Job = UniqueFunction<void()>;

  // Where a job runs: on a thread of its own kind beside the main thread, or on the main thread as a callback
  // of the platform. A timeline whose main thread delivers no callbacks runs both in the background.
  enum class Context { background, mainThreadCallback };

  virtual ~Timeline() = default;

  // Milliseconds since the timeline began.
  virtual double now() const = 0;

  // Runs a job `delay` ms (not negative) from now. Jobs of one stream, an address that is only compared, keep
  // the order in which they fall due. Any thread.
  virtual void schedule(double delay, Context context, const void* stream, Job job) = 0;

  // Whether the simulated process has ended or is being taken down, so that what is done now does not count.
  virtual bool hasEnded() const = 0;

 protected:
  Timeline() = default;
  Timeline(const Timeline&) = default;
  Timeline& operator=(const Timeline&) = default;
};

}  // namespace palaver
