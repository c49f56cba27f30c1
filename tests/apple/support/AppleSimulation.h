// A simulated machine seen through Apple's frameworks: recognition, converters and sound files go through the
// adapters for macOS and the stand-ins to those of the simulation, in virtual time.
#pragma once

#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#include "platform/Platform.h"
#include "platform/macos/AppleAudioConverter.h"
#include "platform/macos/AppleAudioFile.h"
#include "platform/macos/AppleSpeechRecognition.h"
#include "simulator/machine/SimulatedPlatform.h"

namespace palaver {

// Lives as long as the machine runs. Main thread.
class AppleSimulation {
 public:
  explicit AppleSimulation(SimulatedPlatform& machine);
  // Runs what is still on the main dispatch queue: it belongs to this machine.
  ~AppleSimulation();
  AppleSimulation(const AppleSimulation&) = delete;
  AppleSimulation& operator=(const AppleSimulation&) = delete;

  // The simulated machine's platform with the adapters in their places.
  Platform over(const Platform& simulated);

  FrameworkBehaviour behaviour;

 private:
  AppleSpeechRecognition speechRecognition_;
  AppleAudioConverters audioConverters_;
  AppleAudioFiles audioFiles_;
};

}  // namespace palaver
