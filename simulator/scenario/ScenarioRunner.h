// Plays scenarios in virtual time.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "simulator/scenario/Scenario.h"
#include "simulator/scenario/ScenarioRecord.h"

namespace palaver {

// Runs on the simulated machine with the platform built from it.
using ScenarioProgram = std::function<void(SimulatedPlatform&, Platform&)>;

// Plays a scenario with the helper or another program, once per seed. Returns a readable description of the
// mismatches, or none.
std::optional<std::string> play(const Scenario& scenario);
std::optional<std::string> play(const Scenario& scenario, const ScenarioProgram& program);

// Plays a scenario once with the helper, without comparing the result.
ScenarioRecord recordOnce(const Scenario& scenario, const std::optional<std::uint64_t>& seed);

}  // namespace palaver
