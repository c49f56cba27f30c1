// Whether the task-based engine can serve Japanese on this machine, and how that is reported.
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
  bool onDevice;  // the model is installed
  DictationAvailability dictation;

  // An unknown Dictation verdict does not stand in the way.
  bool ready() const {
    return authorization == AuthorizationStatus::authorized && onDevice &&
           dictation != DictationAvailability::disabled;
  }
};

// Asks the platform. Main thread; may wait for the Dictation probe.
LegacyReadiness legacyReadiness(Platform& platform, DictationProbe& dictation);

// The "helper.status" event of this readiness, without its "message".
Event statusEvent(const LegacyReadiness& readiness);

}  // namespace palaver
