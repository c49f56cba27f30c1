// Keeps completions while an operation runs in code to which only a plain pointer can be passed.
#pragma once

#include <cassert>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <utility>

#include "platform/UniqueFunction.h"

namespace palaver {

// Any thread. Completions are destroyed without a lock held, because their destructors may call anything.
class PendingAnswers : public std::enable_shared_from_this<PendingAnswers> {
 public:
  // Keeps a completion. Pass the returned pointer to the operation, and then to take().
  template <typename... Values>
  void* keep(UniqueFunction<void(Values...)> completion) {
    return add(std::make_unique<Held<Values...>>(std::move(completion)));
  }

  // Returns the completion for a pointer returned by keep(), which must have the same type. Call exactly once
  // per pointer, also when the operation completes after everything else has been destroyed. Returns an empty
  // function when the completion has been abandoned.
  template <typename... Values>
  static UniqueFunction<void(Values...)> take(void* context) {
    const auto completion = remove(context);
    if (!completion) return nullptr;
    auto* const held = dynamic_cast<Held<Values...>*>(completion.get());
    assert(held);
    return std::move(held->completion);
  }

  // Calls the completion for a pointer returned by keep(), unless it has been abandoned.
  template <typename... Values>
  static void answer(void* context, Values... values) {
    if (const auto completion = take<Values...>(context)) completion(std::move(values)...);
  }

  // Destroys the completion for a pointer returned by keep(). Use instead of take().
  static void drop(void* context) { remove(context); }

  // Destroys all completions, including those kept later.
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

  // Deleted by remove(), which is called once for each operation. If it is never called, the operation still
  // holds the pointer.
  struct Operation {
    // Guards the members below. The pointer crosses threads through code that establishes no memory order.
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
