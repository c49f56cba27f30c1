// What a transcriber has emitted and nobody has read yet.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/SpeechAnalysis.h"
#include "platform/UniqueFunction.h"
#include "platform/macos/PendingAnswers.h"

namespace palaver {

// The system pushes results; the contract asks for them one by one. Any thread; readers are called without a
// lock held.
class ResultQueue : public std::enable_shared_from_this<ResultQueue> {
 public:
  explicit ResultQueue(std::shared_ptr<PendingAnswers> pending) : pending_(std::move(pending)) {}
  // A reader that still waits is let go.
  ~ResultQueue();
  ResultQueue(const ResultQueue&) = delete;
  ResultQueue& operator=(const ResultQueue&) = delete;

  // Answers with the oldest result, as soon as there is one, and behind the last one with how they ended.
  void next(UniqueFunction<void(NextResult)> completion);

  // Keeps the queue for whoever is going to push results, and is known by this pointer only, until
  // takeBack().
  void* lend();
  static std::shared_ptr<ResultQueue> takeBack(void* context);
  static ResultQueue& lent(void* context) { return *static_cast<ResultQueue*>(context); }

  // Adds a result. Dropped after the end.
  void push(TranscriptionResult result);

  // No more results: `last` is what follows those that wait. Only the first end counts.
  void end(NextResult last);

  // Drops what waits, and answers ResultsCancelled from now on, whatever the end was.
  void cancel();

 private:
  void deliver(std::unique_lock<std::mutex> lock);

  const std::shared_ptr<PendingAnswers> pending_;
  std::mutex lock_;
  std::deque<NextResult> results_;
  std::optional<NextResult> end_;
  void* reader_ = nullptr;             // kept by pending_
  std::shared_ptr<ResultQueue> lent_;  // this
};

}  // namespace palaver
