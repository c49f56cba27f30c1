// Waits for the answer of an asynchronous call.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace palaver {

// Time after which a test fails. Generous, so that slow machines pass.
inline constexpr auto awaitedDeadline = std::chrono::seconds(60);

// Hands out a completion and waits for its call on any thread. A second call fails the test. The completion
// may be called or destroyed after this object.
template <typename Value>
class Awaited {
 public:
  std::function<void(Value)> completion() {
    const auto state = state_;
    const auto held = std::make_shared<Held>(state);
    return [state, held](Value value) {
      const std::lock_guard guard(state->lock);
      if (std::exchange(state->isAnswered, true)) ADD_FAILURE() << "the completion was called twice";
      state->value = std::move(value);
      state->changed.notify_all();
    };
  }

  // Returns the answer, once. None after the deadline, or when the completion was destroyed uncalled.
  std::optional<Value> wait() {
    std::unique_lock lock(state_->lock);
    state_->changed.wait_for(lock, awaitedDeadline, [this] { return state_->isAnswered || !state_->isHeld; });
    return std::exchange(state_->value, std::nullopt);
  }

  // Whether the completion is destroyed before the deadline.
  bool waitUntilLetGo() {
    std::unique_lock lock(state_->lock);
    return state_->changed.wait_for(lock, awaitedDeadline, [this] { return !state_->isHeld; });
  }

  bool hasAnswer() const {
    const std::lock_guard guard(state_->lock);
    return state_->isAnswered;
  }

 private:
  struct State {
    std::mutex lock;
    std::condition_variable changed;
    std::optional<Value> value;
    bool isAnswered = false;
    bool isHeld = false;
  };
  struct Held {
    explicit Held(std::shared_ptr<State> of) : state(std::move(of)) {
      const std::lock_guard guard(state->lock);
      state->isHeld = true;
    }
    ~Held() {
      const std::lock_guard guard(state->lock);
      state->isHeld = false;
      state->changed.notify_all();
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    const std::shared_ptr<State> state;
  };

  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace palaver
