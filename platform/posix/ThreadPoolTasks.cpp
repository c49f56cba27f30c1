#include "platform/posix/ThreadPoolTasks.h"

#include <algorithm>
#include <thread>

namespace palaver {

asio::any_io_executor ThreadPoolTasks::executor() {
  std::call_once(made_, [this] { pool_.emplace(std::max(2u, std::thread::hardware_concurrency())); });
  return pool_->executor();
}

}  // namespace palaver
