#include "simulator/machine/SimulatedTasks.h"

#include <asio/any_io_executor.hpp>
#include <asio/execution.hpp>
#include <memory>
#include <utility>

namespace palaver {

// Schedules functions to run immediately in the background. Tasks of equal time may be shuffled, because a
// pool does not guarantee more.
class SimulatedTasks::Executor {
 public:
  Executor(Timeline& timeline, asio::execution_context& context) : timeline_(&timeline), context_(&context) {}

  template <typename Function>
  void execute(Function function) const {
    // Each task is a stream of its own, so that a seed may shuffle it among the others.
    auto own = std::make_unique<Function>(std::move(function));
    const void* const stream = own.get();
    timeline_->schedule(0, Timeline::Context::background, stream,
                        [own = std::move(own)] { std::move (*own)(); });
  }

  asio::execution_context& query(asio::execution::context_t) const noexcept { return *context_; }
  static constexpr asio::execution::blocking_t query(asio::execution::blocking_t) noexcept {
    return asio::execution::blocking.never;
  }
  Executor require(asio::execution::blocking_t::never_t) const noexcept { return *this; }

  friend bool operator==(const Executor& a, const Executor& b) noexcept { return a.timeline_ == b.timeline_; }
  friend bool operator!=(const Executor& a, const Executor& b) noexcept { return !(a == b); }

 private:
  Timeline* timeline_;
  asio::execution_context* context_;
};

asio::any_io_executor SimulatedTasks::executor() {
  return Executor(timeline_, context_);
}

}  // namespace palaver
