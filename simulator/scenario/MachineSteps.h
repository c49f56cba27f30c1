// Applies scenario steps to a simulated machine while the helper runs on it.
#pragma once

#include <optional>
#include <string>

#include "simulator/scenario/ObjectReader.h"
#include "simulator/scenario/PlatformState.h"

namespace palaver {

// Holds a machine step as JSON, so that another process can perform it.
struct MachineStep {
  std::string key;  // "recognizer", "analyzer" or "platform"
  JSON value;
  std::string where;  // location in the file, for error messages
};

// Validates the step immediately, so that performing it later cannot fail on its syntax. Throws FileError.
MachineStep readMachineStep(const std::string& key, const JSON& value, const std::string& where);

// Performs machine steps. Used only on the thread that performs the steps.
class Stage {
 public:
  // Applies `state` to the machine, which must outlive the stage.
  Stage(ControlledMachine& machine, PlatformState state);

  // Returns an error message, or none.
  std::optional<std::string> perform(const MachineStep& step);

 private:
  ControlledMachine& machine_;
  PlatformState state_;
};

}  // namespace palaver
