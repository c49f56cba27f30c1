// Defines a scenario: what the host sends, what the platform does and what the helper must write, with times.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "simulator/machine/SimulatedPlatform.h"
#include "simulator/scenario/MachineSteps.h"
#include "simulator/scenario/ObjectReader.h"
#include "simulator/scenario/PlatformState.h"
#include "simulator/scenario/ScenarioFiles.h"

namespace palaver {

// Sends bytes to the helper's input, or closes it.
struct HostBytes {
  std::string bytes;
};
struct EndOfInput {};

// Holds an action of the host or the machine as data that each runner performs in its own way.
struct ScenarioAction {
  double time;  // ms since the start
  std::variant<HostBytes, EndOfInput, MachineStep> what;
};

// Describes an expected output line.
struct ExpectedLine {
  double time;       // ms since the start
  JSON event;        // event pattern, or null
  std::string text;  // exact line, if there is no pattern
  std::size_t step;  // number of its step in the conversation, from 0
  // Number of lines from this one on that may come in any order; 1 for a line on its own. Only the first line
  // of such a group has it.
  std::size_t groupSize = 1;
};

struct Scenario {
  std::string title;
  SimulatedSettings settings;  // without the seed
  PlatformState state;
  JSON machine = JSON::object();  // "system" and "platform" of the file, for readMachineState()
  std::vector<std::optional<std::uint64_t>> seeds{std::nullopt};  // one run per seed
  double until = 24 * 60 * 60 * 1000;  // ms since the start; a helper still running then is abandoned
  std::optional<int> exitStatus;       // none: still runs at the end
  std::vector<ScenarioAction> actions;
  // The texts of the finals of each source, in order. With them no other event is compared, and `output` is
  // empty.
  std::optional<std::map<std::string, std::vector<std::string>>> finals;
  std::vector<ExpectedLine> output;
  std::vector<ExpectedLine> errorOutput;
  std::optional<std::vector<JSON>> requests;  // patterns; only the keys they name are compared
  std::optional<std::vector<JSON>> probes;
  std::optional<std::vector<JSON>> analyzers;
  std::vector<ScenarioFile> files;
  bool checksInvariants = false;  // instead of expected output
};

// Reads and validates a scenario after applying `changes` (see ScenarioDifferences). Throws FileError.
Scenario readScenario(const std::filesystem::path& path, const JSON& changes = JSON::object());

// Reads and validates a scenario from the content of a file. `name` names it in error messages; templates are
// relative to `folder`. Throws FileError.
Scenario readScenario(const JSON& file, const std::string& name, const std::filesystem::path& folder = {});

}  // namespace palaver
