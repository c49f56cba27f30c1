#include "simulator/machine/SimulatedTasks.h"

#include <asio/any_io_executor.hpp>
#include <asio/execution.hpp>
#include <memory>
#include <utility>

namespace palaver {

// Schedules functions to run immediately in the background. Tasks of equal time may be shuffled, because a
// pool does not guarantee more. Like the executor of a pool, it runs a function at once that is dispatched
// inside one of its own tasks.
class SimulatedTasks::Executor {
 public:
  Executor(Timeline& timeline, asio::execution_context& context) : timeline_(&timeline), context_(&context) {}

  template <typename Function>
  void execute(Function function) const {
    if (!alwaysQueues_ && running == context_) return std::move(function)();
    // Each task is a stream of its own, so that a seed may shuffle it among the others.
    auto own = std::make_unique<Function>(std::move(function));
    const void* const stream = own.get();
    timeline_->schedule(0, Timeline::Context::background, stream, [own = std::move(own), context = context_] {
      const Running mark(*context);
      std::move (*own)();
    });
  }

  asio::execution_context& query(asio::execution::context_t) const noexcept { return *context_; }
  asio::execution::blocking_t query(asio::execution::blocking_t) const noexcept {
    if (alwaysQueues_) return asio::execution::blocking.never;
    return asio::execution::blocking.possibly;
  }
  Executor require(asio::execution::blocking_t::never_t) const noexcept { return with(true); }
  Executor require(asio::execution::blocking_t::possibly_t) const noexcept { return with(false); }

  friend bool operator==(const Executor& a, const Executor& b) noexcept {
    return a.timeline_ == b.timeline_ && a.alwaysQueues_ == b.alwaysQueues_;
  }
  friend bool operator!=(const Executor& a, const Executor& b) noexcept { return !(a == b); }

 private:
  // Marks the thread as inside a task.
  class Running {
   public:
    explicit Running(const asio::execution_context& context) : previous_(std::exchange(running, &context)) {}
    ~Running() { running = previous_; }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

   private:
    const asio::execution_context* previous_;
  };

  Executor with(bool alwaysQueues) const {
    auto executor = *this;
    executor.alwaysQueues_ = alwaysQueues;
    return executor;
  }

  // The context of the task that this thread runs; null outside of tasks. A timeline may have several
  // threads.
  static inline thread_local const asio::execution_context* running = nullptr;

  Timeline* timeline_;
  asio::execution_context* context_;
  bool alwaysQueues_ = false;
};

asio::any_io_executor SimulatedTasks::executor() {
  return Executor(timeline_, context_);
}

}  // namespace palaver
