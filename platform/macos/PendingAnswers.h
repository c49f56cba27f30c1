// Completions that wait while an operation is under way in the system's own world, where only a plain pointer
// can be sent along.
#pragma once

#include <cassert>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <utility>

#include "platform/UniqueFunction.h"

namespace palaver {

// Any thread. Completions are destroyed without a lock held, as that may do anything.
class PendingAnswers : public std::enable_shared_from_this<PendingAnswers> {
 public:
  // Keeps a completion. What is returned goes along with the operation, and comes back by take().
  template <typename... Values>
  void* keep(UniqueFunction<void(Values...)> completion) {
    return add(std::make_unique<Held<Values...>>(std::move(completion)));
  }

  // The completion of a pointer that keep() gave, of the same type: exactly once for each, also when the
  // operation answers later than all else has gone. Empty when it has been abandoned.
  template <typename... Values>
  static UniqueFunction<void(Values...)> take(void* context) {
    const auto completion = remove(context);
    if (!completion) return nullptr;
    auto* const held = dynamic_cast<Held<Values...>*>(completion.get());
    assert(held);
    return std::move(held->completion);
  }

  // Calls the completion of a pointer that keep() gave, unless it has been abandoned.
  template <typename... Values>
  static void answer(void* context, Values... values) {
    if (const auto completion = take<Values...>(context)) completion(std::move(values)...);
  }

  // Destroys the completion of a pointer that keep() gave, in place of take().
  static void drop(void* context) { remove(context); }

  // Destroys all completions, now and in future.
  void abandon();

 private:
  // A completion of any type.
  struct Completion {
    Completion() = default;
    Completion(const Completion&) = delete;
    Completion& operator=(const Completion&) = delete;
    virtual ~Completion() = default;
  };
  template <typename... Values>
  struct Held final : Completion {
    explicit Held(UniqueFunction<void(Values...)> kept) : completion(std::move(kept)) {}
    UniqueFunction<void(Values...)> completion;
  };

  // Deleted by remove(), which comes for each of them, or never: then the operation still has the pointer.
  struct Operation {
    // Guards what follows. The pointer crosses threads through code that orders nothing for us.
    std::mutex lock;
    std::shared_ptr<PendingAnswers> owner;
    std::unique_ptr<Completion> completion;
  };

  void* add(std::unique_ptr<Completion> completion);
  static std::unique_ptr<Completion> remove(void* context);

  std::mutex lock_;
  std::unordered_set<Operation*> operations_;
  bool isAbandoned_ = false;
};

}  // namespace palaver
