#include "platform/macos/PendingAnswers.h"

#include <vector>

namespace palaver {

void* PendingAnswers::add(std::unique_ptr<Completion> completion) {
  auto* const operation = new Operation;
  const std::scoped_lock guard(lock_, operation->lock);
  operation->owner = shared_from_this();
  if (!isAbandoned_) operation->completion = std::move(completion);
  operations_.insert(operation);
  return operation;
}

std::unique_ptr<PendingAnswers::Completion> PendingAnswers::remove(void* context) {
  const std::unique_ptr<Operation> operation(static_cast<Operation*>(context));
  std::shared_ptr<PendingAnswers> owner;
  {
    const std::lock_guard guard(operation->lock);
    owner = operation->owner;
  }
  // Erased from the set first, so that abandon() does not touch the operation deleted here.
  const std::scoped_lock guard(owner->lock_, operation->lock);
  owner->operations_.erase(operation.get());
  return std::move(operation->completion);
}

void PendingAnswers::abandon() {
  std::vector<std::unique_ptr<Completion>> abandoned;
  const std::lock_guard guard(lock_);
  isAbandoned_ = true;
  for (auto* const operation : operations_) {
    const std::lock_guard operationGuard(operation->lock);
    abandoned.push_back(std::move(operation->completion));
  }
}

}  // namespace palaver
