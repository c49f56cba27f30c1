#include "platform/simulated/SimulatedPlatform.h"

#include <utility>

namespace palaver {

namespace {

std::vector<std::string> withProgram(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "PalaverSTTHelper");
  return arguments;
}

}  // namespace

SimulatedPlatform::SimulatedPlatform(SimulatedSettings settings)
    : scheduler(settings.seed),
      clock(scheduler, settings.startsAt),
      process(scheduler, withProgram(std::move(settings.arguments)), std::move(settings.environment),
              settings.macOS),
      mainQueue(scheduler),
      standardInput(scheduler),
      standardOutput(scheduler),
      standardError(scheduler),
      speechRecognition(scheduler, std::move(settings.recognition)),
      platform_{clock,          process,       mainQueue,    standardInput,
                standardOutput, standardError, audioBuffers, speechRecognition} {}

SimulatedPlatform::~SimulatedPlatform() {
  scheduler.clear();
}

std::optional<int> SimulatedPlatform::run(const std::function<void(Platform&)>& program, double horizon) {
  scheduler.setHorizon(horizon);
  std::optional<int> status;
  try {
    program(platform_);
  } catch (const ProcessExit& exit) {
    status = exit.status;
  } catch (const NothingLeft&) {
  }
  scheduler.clear();  // nothing runs any more, and what jobs hold of the program goes
  return status;
}

}  // namespace palaver
