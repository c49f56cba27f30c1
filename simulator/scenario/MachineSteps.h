// What scenarios do to a simulated machine while the helper runs on it.
#pragma once

#include <optional>
#include <string>

#include "simulator/scenario/ObjectReader.h"
#include "simulator/scenario/PlatformState.h"

namespace palaver {

// A step of the machine as the file has it, so that it can also be performed in another process.
struct MachineStep {
  std::string key;  // "recognizer", "analyzer" or "platform"
  JSON value;
  std::string where;  // in the file, for complaints
};

// Checks the step now, so that it cannot fail to be understood in the middle of a run. Throws FileError.
MachineStep readMachineStep(const std::string& key, const JSON& value, const std::string& where);

// A machine in a scenario's hands. Lives on the thread that performs the steps.
class Stage {
 public:
  // Puts the machine, which must outlive the stage, into that state.
  Stage(ControlledMachine& machine, PlatformState state);

  // Returns what could not be done, or none.
  std::optional<std::string> perform(const MachineStep& step);

 private:
  ControlledMachine& machine_;
  PlatformState state_;
};

}  // namespace palaver
