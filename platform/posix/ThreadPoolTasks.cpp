#include "platform/posix/ThreadPoolTasks.h"

#include <algorithm>
#include <thread>

namespace palaver {

ThreadPoolTasks::ThreadPoolTasks() : ThreadPoolTasks(std::max(2u, std::thread::hardware_concurrency())) {}

asio::any_io_executor ThreadPoolTasks::executor() {
  std::call_once(made_, [this] { pool_.emplace(threads_); });
  return pool_->executor();
}

}  // namespace palaver
