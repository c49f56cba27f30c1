#include "simulator/machine/SimulatedPlatform.h"

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
      tasks(scheduler),
      clock(scheduler, settings.startsAt),
      process(scheduler, withProgram(std::move(settings.arguments)), std::move(settings.environment),
              settings.macOS),
      mainQueue(scheduler),
      standardInput(scheduler),
      standardOutput(scheduler, lineCount),
      standardError(scheduler, lineCount),
      speechRecognition(scheduler, std::move(settings.recognition)),
      speechAnalysis(scheduler, std::move(settings.analysis)),
      platform_{clock,          process,         mainQueue,    standardInput,
                standardOutput, standardError,   audioBuffers, speechRecognition,
                speechAnalysis, audioConverters, audioFiles,   tasks} {}

SimulatedPlatform::~SimulatedPlatform() {
  destroyPendingWork();
}

// Destroys what pending jobs hold, and the coroutines that wait for a completion. A coroutine is destroyed by
// a job, which is dropped in turn.
void SimulatedPlatform::destroyPendingWork() {
  scheduler.clear();
  speechAnalysis.abandon();
  scheduler.clear();
  tasks.shutDown();
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
  destroyPendingWork();
  return status;
}

}  // namespace palaver
