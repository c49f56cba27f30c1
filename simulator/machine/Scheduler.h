// Runs everything that a simulated machine does in virtual time, ordered by (time, sequence), on
// one real thread.
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

// Thrown by Process::exit to end a simulated process. Not derived from std::exception, so that error handlers
// do not catch it.
struct ProcessExit {
  int status;
};

// Thrown when the main thread waits for something that will never happen, or only after the horizon.
struct NothingLeft {};

// Jobs of three kinds are scheduled for a time. Which of them may run depends on how the main thread waits.
// Time passes only in waits: the helper's own code takes no time. Overdue jobs run late, in the order in
// which they were due.
//
// Single-threaded. "Background" and "main thread" only label the running job.
class Scheduler final : public Timeline {
 public:
  // With a seed, jobs due at the same time run in a shuffled order. Jobs of one stream keep theirs.
  explicit Scheduler(std::optional<std::uint64_t> seed = std::nullopt);

  double now() const override { return now_; }
  void schedule(double delay, Context context, const void* stream, Job job) override;
  bool hasEnded() const override { return exitStatus_ || isStopped_; }

  // Queues a job for the main thread, after all jobs queued before.
  void queue(Job job);

  // Simulates a semaphore wait: runs background jobs until the condition holds or `timeout` ms have passed.
  // Returns whether the condition holds.
  bool waitUntil(const std::function<bool()>& condition, double timeout);

  // Simulates a run-loop slice: runs background jobs and at most one platform callback, which ends the slice
  // early. Otherwise the slice takes `milliseconds`.
  void runSlice(double milliseconds);

  // Sets whether a slice entered inside a queued job delivers callbacks. If not, such a
  // slice returns immediately.
  void setSlicesDeliverInsideJobs(bool deliver) { slicesDeliverInsideJobs_ = deliver; }

  // Runs jobs of all kinds. Ends by ProcessExit or NothingLeft only.
  [[noreturn]] void serve();

  // Ends the process: throws ProcessExit, now and in every later wait.
  [[noreturn]] void exit(int status);

  bool isOnMainThread() const { return !inBackground_; }

  // Sets the time that no wait exceeds, ms.
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
