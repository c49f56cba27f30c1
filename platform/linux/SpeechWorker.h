// Keeps a speech worker running for one model: starts it when it is needed, and again after a failure.
#pragma once

#include <memory>
#include <vector>

#include "platform/linux/WorkerConnection.h"
#include "platform/linux/WorkerModel.h"
#include "platform/linux/WorkerSettings.h"

namespace palaver {

// Limits how often a worker is started: after WorkerLimits::deaths failures within WorkerLimits::deathWindow,
// not for WorkerLimits::pause. Not thread-safe.
class WorkerRestarts {
 public:
  explicit WorkerRestarts(const WorkerLimits& limits) : limits_(limits) {}

  void failed(double now);
  // Returns the ms until a worker may be started, 0 or less when it may be started now.
  double remainingPause(double now) const;

 private:
  const WorkerLimits limits_;
  std::vector<double> failures_;  // ms, oldest first
};

// Main thread. Destroying it ends the worker: no handler of its tasks is called afterwards.
class SpeechWorker {
 public:
  SpeechWorker(WorkerModel model, WorkerSettings settings)
      : model_(std::move(model)), settings_(std::move(settings)), restarts_(settings_.limits) {}

  // Starts the worker unless it runs. Ignores failures: connection() reports them.
  void prepare();

  // Returns an open connection, which may end at any time. Throws PlatformError of workerErrorDomain.
  std::shared_ptr<WorkerConnection> connection();

 private:
  const WorkerModel model_;
  const WorkerSettings settings_;
  WorkerRestarts restarts_;
  std::shared_ptr<WorkerConnection> connection_;
};

}  // namespace palaver
