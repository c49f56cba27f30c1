#include "tests/apple/support/AppleSimulation.h"

#include "tests/apple/support/MainRunLoop.h"

namespace palaver {

AppleSimulation::AppleSimulation(SimulatedPlatform& machine)
    : behaviour(machine.speechRecognition, machine.audioConverters, machine.audioFiles, {}) {
  // Drains the main dispatch queue immediately when a callback on the simulated main thread queued the block.
  // Otherwise drains it when the simulated main thread delivers callbacks.
  behaviour.onDelivery = [&machine](bool insideCall) {
    if (!insideCall && machine.scheduler.isOnMainThread()) return drainMainQueue();
    machine.scheduler.schedule(0, Timeline::Context::mainThreadCallback, &machine, drainMainQueue);
  };
}

AppleSimulation::~AppleSimulation() {
  behaviour.onDelivery = [](bool) {};
  drainMainQueue();
}

Platform AppleSimulation::over(const Platform& simulated) {
  return {simulated.clock,
          simulated.process,
          simulated.mainQueue,
          simulated.standardInput,
          simulated.standardOutput,
          simulated.standardError,
          simulated.audioBuffers,
          speechRecognition_,
          simulated.speechAnalysis,
          audioConverters_,
          audioFiles_,
          simulated.tasks};
}

}  // namespace palaver
