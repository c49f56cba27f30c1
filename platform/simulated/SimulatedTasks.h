// Tasks in virtual time: what is posted runs in the background of the simulated machine.
#pragma once

#include <asio/execution_context.hpp>

#include "platform/Tasks.h"
#include "platform/simulated/Timeline.h"

namespace palaver {

// Lives on the timeline's thread. Must outlive all that was given its executor.
class SimulatedTasks final : public Tasks {
 public:
  explicit SimulatedTasks(Timeline& timeline) : timeline_(timeline) {}

  asio::any_io_executor executor() override;

 private:
  class Executor;

  Timeline& timeline_;
  asio::execution_context context_;
};

}  // namespace palaver
