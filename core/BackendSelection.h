// Chooses between the two backends.
#pragma once

#include "platform/Process.h"

namespace palaver {

// Returns whether the analyzer backend serves this system. Otherwise the legacy backend does. Only the
// version decides.
inline bool hasSpeechAnalyzer(const Process& process) {
  return process.isMacOSAtLeast({26, 0, 0});
}

}  // namespace palaver
