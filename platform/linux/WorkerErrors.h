// Declares the errors of a speech worker as tasks report them.
#pragma once

#include <string>

#include "platform/PlatformError.h"

namespace palaver {

inline constexpr const char* workerErrorDomain = "SpeechWorker";

// Error codes of that domain.
enum class WorkerErrorCode : long {
  missing = 1,           // the program is not installed
  notStarted = 2,        // no process, thread or descriptor is left
  ended = 3,             // the process ended by itself or by a signal
  unresponsive = 4,      // the engine made no progress and was ended
  malformedAnswer = 5,   // the process sent what cannot be decoded and was ended
  modelNotLoaded = 6,    // the model is damaged, or the process ended while it loaded
  paused = 7,            // the process keeps ending and is not started for a while
  unsupportedAudio = 8,  // not 16 kHz mono 16-bit
};

inline PlatformError workerError(WorkerErrorCode code, const std::string& description) {
  return {workerErrorDomain, static_cast<long>(code), description};
}

}  // namespace palaver
