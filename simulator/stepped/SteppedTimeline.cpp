#include "simulator/stepped/SteppedTimeline.h"

#include <algorithm>

namespace palaver {

void SteppedTimeline::schedule(double delay, Context context, const void* /*stream*/, Job job) {
  if (context == Context::mainThreadCallback && deliver_)
    job = [this, callback = std::move(job)]() mutable { deliver_(std::move(callback)); };
  insert(delay, Rank::job, std::move(job));
}

void SteppedTimeline::scheduleTimeout(double delay, Job job) {
  insert(delay, Rank::timeout, std::move(job));
}

void SteppedTimeline::insert(double delay, Rank rank, Job job) {
  const std::lock_guard guard(lock_);
  jobs_.emplace(Key{now_ + delay, rank, sequence_++}, std::move(job));
}

std::optional<double> SteppedTimeline::nextDue() const {
  const std::lock_guard guard(lock_);
  return jobs_.empty() ? std::nullopt : std::optional(jobs_.begin()->first.time);
}

std::optional<SteppedTimeline::Job> SteppedTimeline::takeNext(double time, End end) {
  const std::lock_guard guard(lock_);
  const auto next = jobs_.begin();
  const bool isDue =
      next != jobs_.end() && (next->first.time < time || (end == End::included && next->first.time == time));
  now_ = std::max<double>(now_, isDue ? next->first.time : time);
  if (!isDue) return std::nullopt;
  auto job = std::move(next->second);
  jobs_.erase(next);
  return job;
}

bool SteppedTimeline::runNext(double time, End end) {
  const auto job = takeNext(time, end);
  if (job) (*job)();
  return job.has_value();
}

}  // namespace palaver
