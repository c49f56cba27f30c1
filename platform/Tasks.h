// Runs asynchronous work.
#pragma once

#include <asio/any_io_executor.hpp>

namespace palaver {

class Tasks {
 public:
  virtual ~Tasks() = default;

  // Returns a thread pool for unstructured tasks. Serial executors (strands) are created on top of it.
  // Work starts in the order of posting. In simulation there is one thread, and work runs in virtual
  // time. Any thread.
  virtual asio::any_io_executor executor() = 0;

 protected:
  Tasks() = default;
  Tasks(const Tasks&) = default;
  Tasks& operator=(const Tasks&) = default;
};

}  // namespace palaver
