#include "platform/linux/SpeechWorker.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "platform/linux/WorkerErrors.h"

namespace palaver {

void WorkerRestarts::failed(double now) {
  failures_.push_back(now);
  if (failures_.size() > limits_.deaths) failures_.erase(failures_.begin());
}

double WorkerRestarts::remainingPause(double now) const {
  if (failures_.size() < limits_.deaths || failures_.back() - failures_.front() > limits_.deathWindow)
    return 0;
  return failures_.back() + limits_.pause - now;
}

void SpeechWorker::prepare() {
  try {
    connection();
  } catch (const PlatformError&) {
    // The first task tries again and reports it.
  }
}

std::shared_ptr<WorkerConnection> SpeechWorker::connection() {
  if (connection_ && connection_->isOpen()) return connection_;
  if (connection_) {
    if (const auto failedAt = connection_->failedAt()) restarts_.failed(*failedAt);
    connection_.reset();
  }
  const double pause = restarts_.remainingPause(settings_.now());
  if (pause > 0)
    throw workerError(
        WorkerErrorCode::paused,
        "The speech engine ended " + std::to_string(settings_.limits.deaths) + " times within " +
            std::to_string(std::lround(settings_.limits.deathWindow / 1000)) + " s. It is started again in " +
            std::to_string(std::lround(std::ceil(pause / 1000))) + " s");
  connection_ = std::make_shared<WorkerConnection>(model_, settings_);
  return connection_;
}

}  // namespace palaver
