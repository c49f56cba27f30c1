// A pool of threads for tasks, made when the first task needs it.
#pragma once

#include <asio/thread_pool.hpp>
#include <cstddef>
#include <mutex>
#include <optional>

#include "platform/Tasks.h"

namespace palaver {

class ThreadPoolTasks final : public Tasks {
 public:
  // As many threads as the machine has processors, but at least two, so that a task that takes its time does
  // not hold up all others.
  ThreadPoolTasks() = default;
  // With one thread tasks run in the order in which they were posted.
  explicit ThreadPoolTasks(std::size_t threads) : threads_(threads) {}

  asio::any_io_executor executor() override;

 private:
  const std::optional<std::size_t> threads_;  // none: by the machine
  std::once_flag made_;
  std::optional<asio::thread_pool> pool_;
};

}  // namespace palaver
