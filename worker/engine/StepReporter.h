// Lets an engine that serves all tasks on one thread report its steps.
#pragma once

#include <cstdint>
#include <functional>

namespace palaver {

// Called on the engine's thread before it decodes `samples` samples at engineSampleRate, of whichever task.
using StepHandler = std::function<void(std::int64_t samples)>;

// Implemented by engines besides SpeechRecognition.
class StepReporter {
 public:
  virtual ~StepReporter() = default;

  // Calls the handler from the next step on, which may be after the end of this object. Any thread.
  virtual void reportSteps(StepHandler handler) = 0;

 protected:
  StepReporter() = default;
  StepReporter(const StepReporter&) = default;
  StepReporter& operator=(const StepReporter&) = default;
};

}  // namespace palaver
