// Tasks in virtual time: what is posted runs in the background of the simulated machine.
#pragma once

#include <asio/execution_context.hpp>

#include "platform/Tasks.h"
#include "simulator/machine/Timeline.h"

namespace palaver {

// Lives on the timeline's thread. Must outlive all that was given its executor.
class SimulatedTasks final : public Tasks {
 public:
  explicit SimulatedTasks(Timeline& timeline) : timeline_(timeline) {}

  asio::any_io_executor executor() override;

  // Drops what waits in serial executors. What is destroyed so may put jobs on the timeline, which must be
  // dropped before this object goes.
  void shutDown() { context_.shutDown(); }

 private:
  class Executor;
  class Context final : public asio::execution_context {
   public:
    void shutDown() { shutdown(); }
  };

  Timeline& timeline_;
  Context context_;
};

}  // namespace palaver
