#include "simulator/machine/Scheduler.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <vector>

namespace palaver {

namespace {

// Sets a flag while a job runs, and restores it also after an exception.
class Mark {
 public:
  Mark(bool& mark, bool value) : mark_(mark), before_(std::exchange(mark, value)) {}
  ~Mark() { mark_ = before_; }
  Mark(const Mark&) = delete;
  Mark& operator=(const Mark&) = delete;

 private:
  bool& mark_;
  bool before_;
};

}  // namespace

Scheduler::Scheduler(std::optional<std::uint64_t> seed) {
  if (seed) random_.emplace(*seed);
}

void Scheduler::insert(double time, Lane lane, const void* stream, Job job) {
  entries_[lane].emplace(std::pair(time, sequence_++), Entry{stream, std::move(job)});
}

void Scheduler::schedule(double delay, Context context, const void* stream, Job job) {
  insert(now_ + delay, context == Context::background ? background : callback, stream, std::move(job));
}

void Scheduler::queue(Job job) {
  insert(now_, queued, this, std::move(job));
}

// Returns the next job among the lanes up to `last`, which must hold at least one job.
Scheduler::Entries::iterator Scheduler::choose(Lane last, Lane& lane) {
  using Candidate = std::pair<Entries::iterator, Lane>;
  std::optional<Candidate> first;
  for (std::size_t i = 0; i <= last; ++i) {
    const auto entry = entries_[i].begin();
    if (entry != entries_[i].end() && (!first || entry->first < first->first->first))
      first = Candidate(entry, static_cast<Lane>(i));
  }
  if (random_) {
    // The first job of each stream among all jobs due at that time.
    std::vector<Candidate> candidates;
    const double time = first->first->first.first;
    for (std::size_t i = 0; i <= last; ++i) {
      std::set<const void*> streams;
      for (auto entry = entries_[i].lower_bound({time, 0});
           entry != entries_[i].end() && entry->first.first == time; ++entry)
        if (streams.insert(entry->second.stream).second) candidates.emplace_back(entry, static_cast<Lane>(i));
    }
    first = candidates[(*random_)() % candidates.size()];
  }
  lane = first->second;
  return first->first;
}

// Runs the next job of the lanes up to `last` that is due by `deadline` and returns its lane. Without such a
// job, advances the time to the deadline.
std::optional<Scheduler::Lane> Scheduler::runNext(Lane last, double deadline) {
  if (exitStatus_) throw ProcessExit{*exitStatus_};
  const bool isEmpty = std::all_of(entries_.begin(), entries_.begin() + last + 1,
                                   [](const Entries& entries) { return entries.empty(); });
  Lane lane = background;
  const auto next = isEmpty ? entries_[background].end() : choose(last, lane);
  if (isEmpty || next->first.first > deadline) {
    if (std::isinf(deadline) || deadline > horizon_) stop();
    now_ = std::max(now_, deadline);
    return std::nullopt;
  }
  if (next->first.first > horizon_) stop();
  now_ = std::max(now_, next->first.first);
  const Job job = std::move(next->second.job);
  entries_[lane].erase(next);
  const Mark inBackground(inBackground_, lane == background);
  job();
  return lane;
}

void Scheduler::stop() {
  isStopped_ = true;
  throw NothingLeft();
}

bool Scheduler::waitUntil(const std::function<bool()>& condition, double timeout) {
  const double deadline = now_ + timeout;
  while (!condition())
    if (!runNext(background, deadline)) return condition();
  return true;
}

void Scheduler::runSlice(double milliseconds) {
  if (insideJob_ && !slicesDeliverInsideJobs_) return;
  const double deadline = now_ + milliseconds;
  for (;;) {
    const auto lane = runNext(callback, deadline);
    if (!lane || *lane == callback) return;
  }
}

void Scheduler::serve() {
  const Mark insideJob(insideJob_, true);
  constexpr double forEver = std::numeric_limits<double>::infinity();
  for (;;) runNext(queued, forEver);
}

void Scheduler::exit(int status) {
  if (!exitStatus_) exitStatus_ = status;
  throw ProcessExit{*exitStatus_};
}

void Scheduler::clear() {
  // Destroying a job may queue another one.
  while (std::any_of(entries_.begin(), entries_.end(), [](const Entries& e) { return !e.empty(); }))
    for (auto& entries : entries_) std::exchange(entries, {});
}

}  // namespace palaver
