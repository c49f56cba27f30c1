// Runs tasks on a thread pool that is created for the first task.
#pragma once

#include <asio/thread_pool.hpp>
#include <cstddef>
#include <mutex>
#include <optional>

#include "platform/Tasks.h"

namespace palaver {

class ThreadPoolTasks final : public Tasks {
 public:
  // Uses one thread per processor, but at least two, so that one slow task does not block all others.
  ThreadPoolTasks() = default;
  // With one thread, tasks run in the order of posting.
  explicit ThreadPoolTasks(std::size_t threads) : threads_(threads) {}

  asio::any_io_executor executor() override;

 private:
  const std::optional<std::size_t> threads_;  // none: one thread per processor
  std::once_flag made_;
  std::optional<asio::thread_pool> pool_;
};

}  // namespace palaver
