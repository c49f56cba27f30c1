// The "conversation" of a scenario file: one list of steps in order of time.
#pragma once

#include "simulator/scenario/Scenario.h"

namespace palaver {

// Adds the steps to the scenario, whose settings have been read before. `templates` holds objects by name.
// Throws FileError.
void readConversation(const JSON& steps, const JSON& templates, Scenario& scenario);

}  // namespace palaver
