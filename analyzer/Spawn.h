// Starting coroutines that nobody waits for.
#pragma once

#include <asio/awaitable.hpp>
#include <asio/co_spawn.hpp>
#include <exception>
#include <utility>

namespace palaver {

// Starts a coroutine on an executor, behind what is queued there. An exception that leaves it is a defect of
// the program, or the end of a simulated process, and goes on out of the executor.
template <typename Executor>
void spawn(const Executor& executor, asio::awaitable<void> coroutine) {
  asio::co_spawn(executor, std::move(coroutine), [](const std::exception_ptr& error) {
    if (error) std::rethrow_exception(error);
  });
}

}  // namespace palaver
