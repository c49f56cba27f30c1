// Awaits platform completions in coroutines.
#pragma once

#include <asio/associated_executor.hpp>
#include <asio/async_result.hpp>
#include <asio/awaitable.hpp>
#include <asio/post.hpp>
#include <asio/use_awaitable.hpp>
#include <optional>
#include <utility>

#include "platform/PlatformError.h"
#include "platform/UniqueFunction.h"

namespace palaver {

// Calls `start` with a completion and suspends until the completion is called, on any thread. The coroutine
// resumes on its own executor. A completion that is never called keeps the coroutine suspended. Destroying
// the completion destroys the coroutine.
template <typename Result, typename Start>
asio::awaitable<Result> completionOf(Start start) {
  co_return co_await asio::async_initiate<const asio::use_awaitable_t<>, void(Result)>(
      [](auto handler, Start begin) {
        begin(UniqueFunction<void(Result)>([waiter = std::move(handler)](Result result) mutable {
          const auto executor = asio::get_associated_executor(waiter);
          asio::post(executor, [waiter = std::move(waiter), result = std::move(result)]() mutable {
            std::move(waiter)(std::move(result));
          });
        }));
      },
      asio::use_awaitable, std::move(start));
}

// Like completionOf(), for an operation that may fail. Throws its error.
template <typename Start>
asio::awaitable<void> successOf(Start start) {
  const auto error = co_await completionOf<std::optional<PlatformError>>(std::move(start));
  if (error) throw *error;
}

}  // namespace palaver
