#include "simulator/stepped/SteppedMainQueue.h"

#include <cassert>
#include <utility>

namespace palaver {

namespace {

// Exceeds any test's duration. The timeline wakes the waiting thread.
constexpr double forEver = 24 * 60 * 60 * 1000;  // ms

}  // namespace

void SteppedSemaphore::signal() {
  const std::lock_guard guard(state_->lock);
  ++state_->count;
  state_->real->signal();
}

bool SteppedSemaphore::wait(double timeoutMilliseconds) {
  std::uint64_t number = 0;
  {
    const std::lock_guard guard(state_->lock);
    number = ++state_->waits;
    state_->isWaiting = true;
    state_->hasTimedOut = false;
  }
  timeline_.scheduleTimeout(timeoutMilliseconds, [state = state_, number] {
    const std::lock_guard guard(state->lock);
    if (!state->isWaiting || state->waits != number) return;
    state->hasTimedOut = true;
    state->real->signal();
  });
  const bool woken = state_->real->wait(forEver);

  const std::lock_guard guard(state_->lock);
  state_->isWaiting = false;
  if (!woken || state_->count == 0) return false;
  --state_->count;
  // Both a signal and the time-out arrived: also consume the time-out's signal.
  if (state_->hasTimedOut) state_->real->wait(0);
  return true;
}

SteppedMainQueue::SteppedMainQueue(MainQueue& real, SteppedTimeline& timeline)
    : real_(real), timeline_(timeline) {
  timeline.setCallbackDelivery([this](Job callback) { deliver(std::move(callback)); });
}

std::unique_ptr<Semaphore> SteppedMainQueue::makeSemaphore() {
  return std::make_unique<SteppedSemaphore>(real_.makeSemaphore(), timeline_);
}

void SteppedMainQueue::setSlicesDeliverInsideJobs(bool deliver) {
  const std::lock_guard guard(lock_);
  slicesDeliverInsideJobs_ = deliver;
}

void SteppedMainQueue::serve() {
  {
    const std::lock_guard guard(lock_);
    isServing_ = true;
  }
  real_.run();
}

// The callback runs in a slice or as a job of the queue, whichever is first.
void SteppedMainQueue::deliver(Job callback) {
  {
    const std::lock_guard guard(lock_);
    callbacks_.push_back(std::move(callback));
  }
  changed_.notify_one();
  real_.async([this] { runCallback(std::unique_lock(lock_)); });
}

void SteppedMainQueue::runCallback(std::unique_lock<std::mutex> guard) {
  if (callbacks_.empty()) return;
  const auto callback = std::move(callbacks_.front());
  callbacks_.pop_front();
  guard.unlock();
  callback();
}

void SteppedMainQueue::runSlice(double milliseconds) {
  assert(isCurrent());
  std::unique_lock guard(lock_);
  if (isServing_ && !slicesDeliverInsideJobs_) return;
  const auto number = ++slices_;
  if (callbacks_.empty())
    timeline_.scheduleTimeout(milliseconds, [this, number] {
      {
        const std::lock_guard timeout(lock_);
        timedOutSlice_ = number;
      }
      changed_.notify_one();
    });
  changed_.wait(guard, [&] { return !callbacks_.empty() || timedOutSlice_ >= number; });
  runCallback(std::move(guard));
}

}  // namespace palaver
