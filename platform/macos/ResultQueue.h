// Queues the results of a transcriber until they are read.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/SpeechAnalysis.h"
#include "platform/UniqueFunction.h"
#include "platform/macos/PendingAnswers.h"

namespace palaver {

// The system pushes results, while the contract reads them one by one. Any thread. Readers are called without
// a lock held.
class ResultQueue : public std::enable_shared_from_this<ResultQueue> {
 public:
  explicit ResultQueue(std::shared_ptr<PendingAnswers> pending) : pending_(std::move(pending)) {}
  // Destroys a waiting reader's completion.
  ~ResultQueue();
  ResultQueue(const ResultQueue&) = delete;
  ResultQueue& operator=(const ResultQueue&) = delete;

  // Completes with the oldest result as soon as there is one, and after the last result with the end.
  void next(UniqueFunction<void(NextResult)> completion);

  // Returns a pointer to pass to the system, which pushes results through it. Keeps the queue
  // alive until takeBack().
  void* lend();
  static std::shared_ptr<ResultQueue> takeBack(void* context);
  static ResultQueue& lent(void* context) { return *static_cast<ResultQueue*>(context); }

  // Appends a result. Dropped after the end.
  void push(TranscriptionResult result);

  // Ends the results: `last` follows the queued ones. Only the first end counts.
  void end(NextResult last);

  // Drops the queued results. All later reads complete with ResultsCancelled, regardless of the end.
  void cancel();

 private:
  void deliver(std::unique_lock<std::mutex> lock);

  const std::shared_ptr<PendingAnswers> pending_;
  std::mutex lock_;
  std::deque<NextResult> results_;
  std::optional<NextResult> end_;
  void* reader_ = nullptr;             // kept by pending_
  std::shared_ptr<ResultQueue> lent_;  // keeps this alive while lent
};

}  // namespace palaver
