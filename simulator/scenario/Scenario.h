// A scenario: what the host says, what the platform does, and what must come out, with times.
#pragma once

#include <cstdint>
#include <filesystem>
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

// The host sends bytes, or closes the helper's input.
struct HostBytes {
  std::string bytes;
};
struct EndOfInput {};

// Something that the host or the machine does, as data that every runner can perform in its own way.
struct ScenarioAction {
  double time;  // ms since the start
  std::variant<HostBytes, EndOfInput, MachineStep> what;
};

// A line that must come out.
struct ExpectedLine {
  double time;       // ms since the start
  JSON event;        // the pattern of an event, or null
  std::string text;  // the exact line, when there is no pattern
};

struct Scenario {
  std::string title;
  SimulatedSettings settings;  // without the seed
  PlatformState state;
  JSON machine = JSON::object();  // system and platform as the file has them, for readMachineState()
  std::vector<std::optional<std::uint64_t>> seeds{std::nullopt};  // one run for each
  double until = 24 * 60 * 60 * 1000;  // ms since the start; time at which a helper that still runs is left
  std::optional<int> exitStatus;       // none: it still runs in the end
  std::vector<ScenarioAction> actions;
  std::vector<ExpectedLine> output;
  std::vector<ExpectedLine> errorOutput;
  std::optional<std::vector<JSON>> requests;  // patterns, of which the keys given count
  std::optional<std::vector<JSON>> probes;
  std::optional<std::vector<JSON>> analyzers;
  std::vector<ScenarioFile> files;
};

// Reads and validates a scenario, with changes as those of ScenarioDifferences. Throws FileError.
Scenario readScenario(const std::filesystem::path& path, const JSON& changes = JSON::object());

}  // namespace palaver
