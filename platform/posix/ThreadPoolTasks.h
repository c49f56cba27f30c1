// A pool of threads for tasks, made when the first task needs it.
#pragma once

#include <asio/thread_pool.hpp>
#include <mutex>
#include <optional>

#include "platform/Tasks.h"

namespace palaver {

class ThreadPoolTasks final : public Tasks {
 public:
  asio::any_io_executor executor() override;

 private:
  std::once_flag made_;
  std::optional<asio::thread_pool> pool_;
};

}  // namespace palaver
