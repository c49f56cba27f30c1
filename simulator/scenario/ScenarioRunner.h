// Plays scenarios in virtual time.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "simulator/scenario/Scenario.h"

namespace palaver {

// What runs on the simulated machine, on the platform that is made of it.
using ScenarioProgram = std::function<void(SimulatedPlatform&, Platform&)>;

// Plays a scenario with the helper or another program, once for each of its seeds. Returns what went
// otherwise than expected as text for the reader, or none.
std::optional<std::string> play(const Scenario& scenario);
std::optional<std::string> play(const Scenario& scenario, const ScenarioProgram& program);

}  // namespace palaver
