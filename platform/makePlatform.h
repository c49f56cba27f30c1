// Creates the machine's own platform. Each platform defines this function once.
#pragma once

#include "platform/Platform.h"

namespace palaver {

// Call once, on the main thread, before any other use of the platform. The platform lives until
// the process ends.
Platform& makePlatform(int argumentCount, char** arguments);

}  // namespace palaver
