// Where asynchronous work runs.
#pragma once

#include <asio/any_io_executor.hpp>

namespace palaver {

class Tasks {
 public:
  virtual ~Tasks() = default;

  // A pool of threads for unstructured tasks; serial executors (strands) are made on top of it. What is
  // posted starts in the order of posting. In simulation there is one thread, and work runs in virtual time.
  // Any thread.
  virtual asio::any_io_executor executor() = 0;

 protected:
  Tasks() = default;
  Tasks(const Tasks&) = default;
  Tasks& operator=(const Tasks&) = default;
};

}  // namespace palaver
