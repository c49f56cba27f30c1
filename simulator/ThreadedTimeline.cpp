#include "simulator/ThreadedTimeline.h"

#include <functional>

namespace palaver {

class ThreadedTimeline::Worker {
 public:
  explicit Worker(std::chrono::steady_clock::time_point start)
      : start_(start), thread_([this] { serve(); }) {}
  ~Worker() { end(); }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void end() {
    {
      const std::lock_guard guard(lock_);
      stops_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) thread_.join();
    decltype(jobs_) dropped;  // destroyed without the lock: a job's destructor may add a job
    {
      const std::lock_guard guard(lock_);
      dropped.swap(jobs_);
    }
  }

  void add(double time, Job job) {
    {
      const std::lock_guard guard(lock_);
      if (stops_) return;
      jobs_.emplace(std::pair(time, sequence_++), std::move(job));
    }
    changed_.notify_one();
  }

 private:
  void serve() {
    std::unique_lock lock(lock_);
    while (!stops_) {
      if (jobs_.empty()) {
        changed_.wait(lock);
        continue;
      }
      const auto due = start_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                    std::chrono::duration<double, std::milli>(jobs_.begin()->first.first));
      if (std::chrono::steady_clock::now() < due) {
        changed_.wait_until(lock, due);
        continue;
      }
      auto job = jobs_.extract(jobs_.begin());
      lock.unlock();
      job.mapped()();
      job = {};
      lock.lock();
    }
  }

  const std::chrono::steady_clock::time_point start_;
  std::mutex lock_;
  std::condition_variable changed_;
  std::map<std::pair<double, std::uint64_t>, Job> jobs_;  // by time (ms) and sequence
  std::uint64_t sequence_ = 0;
  bool stops_ = false;
  std::thread thread_;
};

ThreadedTimeline::ThreadedTimeline(std::size_t threads) {
  for (std::size_t i = 0; i < threads; ++i) workers_.push_back(std::make_unique<Worker>(start_));
}

ThreadedTimeline::~ThreadedTimeline() {
  end();
}

void ThreadedTimeline::end() {
  for (const auto& worker : workers_) worker->end();
}

double ThreadedTimeline::now() const {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_).count();
}

void ThreadedTimeline::schedule(double delay, Context, const void* stream, Job job) {
  workers_[std::hash<const void*>()(stream) / 16 % workers_.size()]->add(now() + delay, std::move(job));
}

}  // namespace palaver
