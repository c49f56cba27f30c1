// The state of the simulated machine as files give it.
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

// The whole machine, as it stays.
struct MachineState {
  std::optional<OperatingSystemVersion> macOS = SimulatedSettings().macOS;  // none: another system
  PlatformState platform;
};

// Reads an object with the keys system and platform, both optional. Throws FileError.
MachineState readMachineState(const JSON& value, const std::string& where);

// Changes in `state` what the object names and leaves the rest. Throws FileError.
void readPlatformState(const JSON& value, const std::string& where, PlatformState& state);

// What a state is about: a machine whose services follow scripts and whose faults can be switched.
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

// Puts the machine into that state. Its services count too, also when the machine was made with them.
void apply(const PlatformState& state, ControlledMachine& machine);

// The system of a text such as "macOS 15.4"; none for "Linux". Throws FileError.
std::optional<OperatingSystemVersion> readSystem(const std::string& text, const std::string& where);

// A platform error: the name of a well-known one, or an object with domain, code and text. Throws FileError.
PlatformError readPlatformError(const JSON& value, const std::string& where);

// What a recognizer answers: an object with partial or final (text), segments, error. Throws FileError.
RecognitionAnswer readRecognitionAnswer(ObjectReader& reader);

}  // namespace palaver
