// Runs posted work in virtual time, in the background of the simulated machine.
#pragma once

#include <asio/execution_context.hpp>

#include "platform/Tasks.h"
#include "simulator/machine/Timeline.h"

namespace palaver {

// Confined to the timeline's thread. Must outlive all users of its executor.
class SimulatedTasks final : public Tasks {
 public:
  explicit SimulatedTasks(Timeline& timeline) : timeline_(timeline) {}

  asio::any_io_executor executor() override;

  // Drops the work queued in serial executors. Destroying it may put jobs on the timeline, which must be
  // dropped before this object is destroyed.
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
