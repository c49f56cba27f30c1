// Checks whether the task-based engine can serve Japanese on this machine, and formats the report.
#pragma once

#include "core/JSONLineWriter.h"

#include "core/Protocol.h"
#include "legacy/DictationProbe.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

struct Platform;

// The engine's name on the wire.
inline constexpr std::string_view legacyImplementationName = "sf-speech-recognizer";

struct LegacyReadiness {
  AuthorizationStatus authorization;
  bool onDevice;  // whether the model is installed
  DictationAvailability dictation;

  // An unknown Dictation verdict does not block readiness.
  bool ready() const {
    return authorization == AuthorizationStatus::authorized && onDevice &&
           dictation != DictationAvailability::disabled;
  }
};

// Queries the platform. Main thread. May block for the Dictation probe.
LegacyReadiness legacyReadiness(Platform& platform, DictationProbe& dictation);

// Creates the "helper.status" event of this readiness, without its "message".
Event statusEvent(const LegacyReadiness& readiness);

}  // namespace palaver
