#include "platform/posix/ThreadPoolTasks.h"

#include <algorithm>
#include <thread>

namespace palaver {

asio::any_io_executor ThreadPoolTasks::executor() {
  // The processors are counted here and not at start-up, because that takes system calls and the legacy
  // backend needs no pool.
  std::call_once(made_, [this] {
    pool_.emplace(threads_ ? *threads_ : std::size_t{std::max(2u, std::thread::hardware_concurrency())});
  });
  return pool_->executor();
}

}  // namespace palaver
