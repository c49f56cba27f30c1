// Starts detached coroutines.
#pragma once

#include <asio/awaitable.hpp>
#include <asio/co_spawn.hpp>
#include <asio/post.hpp>
#include <exception>
#include <utility>

namespace palaver {

// Starts a coroutine on an executor, after the jobs already queued there and never inside this call. An
// exception that leaves the coroutine is a program defect, or the end of a simulated process. It propagates
// out of the executor.
template <typename Executor>
void spawn(const Executor& executor, asio::awaitable<void> coroutine) {
  // co_spawn alone would start the coroutine at once when called on the executor.
  asio::post(executor, [executor, coroutine = std::move(coroutine)]() mutable {
    asio::co_spawn(executor, std::move(coroutine), [](const std::exception_ptr& error) {
      if (error) std::rethrow_exception(error);
    });
  });
}

}  // namespace palaver
