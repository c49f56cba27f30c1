// Shares one value, set once, with several awaiting coroutines on one serial executor.
#pragma once

#include <asio/async_result.hpp>
#include <asio/awaitable.hpp>
#include <asio/use_awaitable.hpp>
#include <exception>
#include <memory>
#include <utility>
#include <variant>
#include <vector>

#include "platform/UniqueFunction.h"

namespace palaver {

// Confined to the executor of the coroutines that use it. Nothing is locked. resolve() and reject() resume
// the waiters synchronously in the order of their arrival, so a later waiter cannot overtake them.
template <typename Value>
class SerialPromise {
 public:
  void resolve(Value value) { settle(std::move(value)); }
  void reject(std::exception_ptr error) { settle(std::move(error)); }

  // Destroys the waiters, and every later one, because no value will be set. Breaks the reference cycle of a
  // promise and waiters that own its owner. Does nothing once a value or an error has been set.
  void abandon() {
    isAbandoned_ = true;
    std::exchange(waiters_, {}).clear();
  }

  // Abandons the promise when the coroutine that should settle it ends or is destroyed.
  class Keeper {
   public:
    explicit Keeper(SerialPromise& promise) : promise_(promise) {}
    ~Keeper() { promise_.abandon(); }
    Keeper(const Keeper&) = delete;
    Keeper& operator=(const Keeper&) = delete;

   private:
    SerialPromise& promise_;
  };

  // Returns the value or throws the error. The promise must outlive the wait.
  asio::awaitable<Value> value() {
    if (std::holds_alternative<std::monostate>(outcome_)) {
      co_await asio::async_initiate<const asio::use_awaitable_t<>, void()>(
          [this](auto handler) {
            if (isAbandoned_) return;  // destroying the handler destroys the coroutine
            waiters_.push_back([waiter = std::move(handler)]() mutable { std::move(waiter)(); });
          },
          asio::use_awaitable);
    }
    if (const auto* error = std::get_if<std::exception_ptr>(&outcome_)) std::rethrow_exception(*error);
    co_return std::get<Value>(outcome_);
  }

 private:
  template <typename Outcome>
  void settle(Outcome outcome) {
    outcome_ = std::move(outcome);
    for (const auto& waiter : std::exchange(waiters_, {})) waiter();
  }

  std::variant<std::monostate, Value, std::exception_ptr> outcome_;
  std::vector<UniqueFunction<void()>> waiters_;
  bool isAbandoned_ = false;
};

}  // namespace palaver
