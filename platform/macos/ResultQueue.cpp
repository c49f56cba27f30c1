#include "platform/macos/ResultQueue.h"

#include <cassert>
#include <utility>

namespace palaver {

ResultQueue::~ResultQueue() {
  if (reader_) PendingAnswers::drop(reader_);
}

void ResultQueue::next(UniqueFunction<void(NextResult)> completion) {
  std::unique_lock lock(lock_);
  assert(!reader_);
  reader_ = pending_->keep(std::move(completion));
  deliver(std::move(lock));
}

void* ResultQueue::lend() {
  const std::lock_guard guard(lock_);
  lent_ = shared_from_this();
  return this;
}

std::shared_ptr<ResultQueue> ResultQueue::takeBack(void* context) {
  auto& queue = lent(context);
  const std::lock_guard guard(queue.lock_);
  return std::move(queue.lent_);
}

void ResultQueue::push(TranscriptionResult result) {
  std::unique_lock lock(lock_);
  if (end_) return;
  results_.emplace_back(std::move(result));
  deliver(std::move(lock));
}

void ResultQueue::end(NextResult last) {
  std::unique_lock lock(lock_);
  if (end_) return;
  end_ = std::move(last);
  deliver(std::move(lock));
}

void ResultQueue::cancel() {
  std::unique_lock lock(lock_);
  results_.clear();
  end_ = ResultsCancelled{};
  deliver(std::move(lock));
}

void ResultQueue::deliver(std::unique_lock<std::mutex> lock) {
  if (!reader_ || (results_.empty() && !end_)) return;
  auto result = results_.empty() ? *end_ : std::move(results_.front());
  if (!results_.empty()) results_.pop_front();
  auto* const reader = std::exchange(reader_, nullptr);
  lock.unlock();
  PendingAnswers::answer(reader, std::move(result));
}

}  // namespace palaver
