// Runs a simulated machine through Apple's frameworks, in virtual time. Recognition, converters and sound
// files pass through the macOS adapters and the stand-ins to the simulation.
#pragma once

#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#include "platform/Platform.h"
#include "platform/macos/AppleAudioConverter.h"
#include "platform/macos/AppleAudioFile.h"
#include "platform/macos/AppleSpeechRecognition.h"
#include "simulator/machine/SimulatedPlatform.h"

namespace palaver {

// Main thread. Destroy it with the machine.
class AppleSimulation {
 public:
  explicit AppleSimulation(SimulatedPlatform& machine);
  // Drains the main dispatch queue, whose blocks belong to this machine.
  ~AppleSimulation();
  AppleSimulation(const AppleSimulation&) = delete;
  AppleSimulation& operator=(const AppleSimulation&) = delete;

  // Returns the simulated platform with the adapters substituted.
  Platform over(const Platform& simulated);

  FrameworkBehaviour behaviour;

 private:
  AppleSpeechRecognition speechRecognition_;
  AppleAudioConverters audioConverters_;
  AppleAudioFiles audioFiles_;
};

}  // namespace palaver
