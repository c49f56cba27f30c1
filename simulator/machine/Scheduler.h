// Virtual time: everything that a simulated machine does, in order of (time, sequence) on one real thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <utility>

#include "simulator/machine/Timeline.h"

namespace palaver {

// How a simulated process ends: thrown by Process::exit. No std::exception, so that no handler of errors
// takes it for one.
struct ProcessExit {
  int status;
};

// Thrown when the main thread waits for something that will never come, or that comes behind the horizon.
struct NothingLeft {};

// Jobs of three kinds fall due at their times; which of them may run depends on how the main thread waits.
// Time passes in waits only: the helper's own code takes none. Whatever waited too long is run late, in the
// order in which it fell due.
//
// Single-threaded: "background" and "main thread" are only marks of what is running.
class Scheduler final : public Timeline {
 public:
  // With a seed, jobs that fall due at the same time run in a shuffled order, except that jobs of one stream
  // keep theirs.
  explicit Scheduler(std::optional<std::uint64_t> seed = std::nullopt);

  double now() const override { return now_; }
  void schedule(double delay, Context context, const void* stream, Job job) override;
  bool hasEnded() const override { return exitStatus_ || isStopped_; }

  // Queues a job for the main thread, behind all those queued before.
  void queue(Job job);

  // A semaphore wait: background jobs run until the condition holds (true) or `timeout` ms have passed
  // (whether it holds then).
  bool waitUntil(const std::function<bool()>& condition, double timeout);

  // A slice of the run loop: background jobs run, and one platform callback at most, which ends the slice
  // early; else it takes `milliseconds`.
  void runSlice(double milliseconds);

  // Whether a slice entered from inside a queued job delivers callbacks. When not, it returns at once.
  void setSlicesDeliverInsideJobs(bool deliver) { slicesDeliverInsideJobs_ = deliver; }

  // Everything runs. Ends by ProcessExit or NothingLeft only.
  [[noreturn]] void serve();

  // Ends the process: throws ProcessExit, now and at every later wait.
  [[noreturn]] void exit(int status);

  bool isOnMainThread() const { return !inBackground_; }

  // No wait goes beyond this time (ms).
  void setHorizon(double time) { horizon_ = time; }

  // Drops all jobs that have not run.
  void clear();

 private:
  enum Lane : std::size_t { background, callback, queued, laneCount };
  struct Entry {
    const void* stream;
    Job job;
  };
  using Entries = std::map<std::pair<double, std::uint64_t>, Entry>;  // by time and sequence

  void insert(double time, Lane lane, const void* stream, Job job);
  std::optional<Lane> runNext(Lane last, double deadline);
  Entries::iterator choose(Lane last, Lane& lane);
  [[noreturn]] void stop();

  double now_ = 0;
  double horizon_ = std::numeric_limits<double>::infinity();
  std::uint64_t sequence_ = 0;
  std::array<Entries, laneCount> entries_;
  std::optional<std::mt19937_64> random_;
  std::optional<int> exitStatus_;
  bool isStopped_ = false;  // nothing is left
  bool inBackground_ = false;
  bool insideJob_ = false;
  bool slicesDeliverInsideJobs_ = true;
};

}  // namespace palaver
