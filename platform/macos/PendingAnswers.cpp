#include "platform/macos/PendingAnswers.h"

#include <vector>

namespace palaver {

void* PendingAnswers::add(std::any completion) {
  auto* const operation = new Operation;
  const std::scoped_lock guard(lock_, operation->lock);
  operation->owner = shared_from_this();
  if (!isAbandoned_) operation->completion = std::move(completion);
  operations_.insert(operation);
  return operation;
}

std::any PendingAnswers::remove(void* context) {
  const std::unique_ptr<Operation> operation(static_cast<Operation*>(context));
  std::shared_ptr<PendingAnswers> owner;
  {
    const std::lock_guard guard(operation->lock);
    owner = operation->owner;
  }
  // Out of the set first, so that abandon() does not touch what is deleted here.
  const std::scoped_lock guard(owner->lock_, operation->lock);
  owner->operations_.erase(operation.get());
  return std::exchange(operation->completion, {});
}

void PendingAnswers::abandon() {
  std::vector<std::any> abandoned;
  const std::lock_guard guard(lock_);
  isAbandoned_ = true;
  for (auto* const operation : operations_) {
    const std::lock_guard operationGuard(operation->lock);
    abandoned.push_back(std::exchange(operation->completion, {}));
  }
}

}  // namespace palaver
