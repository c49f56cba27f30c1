// Reads the state of the simulated machine from scenario and state files.
#pragma once

#include <optional>
#include <string>

#include "simulator/machine/SimulatedPlatform.h"
#include "simulator/scenario/ObjectReader.h"

namespace palaver {

struct PlatformState {
  RecognitionState recognition;
  AnalysisState analysis;
  SimulatedAudioBuffers::Fault audioBuffers = SimulatedAudioBuffers::Fault::none;
  SimulatedAudioConverters::Fault audioConverters = SimulatedAudioConverters::Fault::none;
  double clockShift = 0;  // ms
  bool slicesDeliverInsideJobs = true;
};

// Holds the initial state of the machine.
struct MachineState {
  std::optional<OperatingSystemVersion> macOS = SimulatedSettings().macOS;  // none: not macOS
  PlatformState platform;
};

// Reads an object with the optional keys "system" and "platform". Throws FileError.
MachineState readMachineState(const JSON& value, const std::string& where);

// Applies the members of the object to `state` and keeps the rest. Throws FileError.
void readPlatformState(const JSON& value, const std::string& where, PlatformState& state);

// Exposes the scripted services and switchable faults of a simulated machine.
class ControlledMachine {
 public:
  virtual ~ControlledMachine() = default;

  virtual SimulatedSpeechRecognition& speechRecognition() = 0;
  virtual SimulatedSpeechAnalysis& speechAnalysis() = 0;
  virtual void setFault(SimulatedAudioBuffers::Fault fault) = 0;
  virtual void setFault(SimulatedAudioConverters::Fault fault) = 0;
  virtual void setClockShift(double milliseconds) = 0;
  virtual void setSlicesDeliverInsideJobs(bool deliver) = 0;

 protected:
  ControlledMachine() = default;
  ControlledMachine(const ControlledMachine&) = default;
  ControlledMachine& operator=(const ControlledMachine&) = default;
};

// Applies `state` to the machine, including its services, even if the machine was created with them.
void apply(const PlatformState& state, ControlledMachine& machine);

// Parses a system such as "macOS 15.4". Returns none for "Linux". Throws FileError.
std::optional<OperatingSystemVersion> readSystem(const std::string& text, const std::string& where);

// Reads a platform error: a well-known name, or an object with domain, code and text. Throws FileError.
PlatformError readPlatformError(const JSON& value, const std::string& where);

// Reads a recognizer's answer: an object with a partial or final text, segments and error. Throws FileError.
RecognitionAnswer readRecognitionAnswer(ObjectReader& reader);

}  // namespace palaver
