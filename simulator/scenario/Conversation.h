// Reads the "conversation" of a scenario file: one list of steps in time order.
#pragma once

#include "simulator/scenario/Scenario.h"

namespace palaver {

// Appends the steps to `scenario`, whose settings must have been read before. `templates` maps names to
// objects. Throws FileError.
void readConversation(const JSON& steps, const JSON& templates, Scenario& scenario);

}  // namespace palaver
