// The machine's own platform; each platform defines this function once.
#pragma once

#include "platform/Platform.h"

namespace palaver {

// Called once, first thing, on the main thread. The platform lives until the process ends.
Platform& makePlatform(int argumentCount, char** arguments);

}  // namespace palaver
