// Plays scenarios in virtual time.
#pragma once

#include <optional>
#include <string>

#include "tests/simulator/Scenario.h"

namespace palaver {

// Plays a scenario, once for each of its seeds. Returns what went otherwise than expected as text for the
// reader, or none.
std::optional<std::string> play(const Scenario& scenario);

}  // namespace palaver
