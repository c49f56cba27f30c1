#include "legacy/LegacyReadiness.h"

#include <nlohmann/json.hpp>

#include "platform/Platform.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

LegacyReadiness legacyReadiness(Platform& platform, DictationProbe& dictation) {
  const auto recognizer = platform.speechRecognition.makeRecognizer(statusLocale);
  const auto authorization = platform.speechRecognition.authorizationStatus();
  const bool onDevice = recognizer && recognizer->supportsOnDeviceRecognition();
  return {authorization, onDevice, dictation.availability(statusLocale)};
}

Event statusEvent(const LegacyReadiness& readiness) {
  return {{"type", "helper.status"},
          {"status", readiness.ready() ? "ready" : "setup-required"},
          {"available", readiness.ready()},
          {"implementation", legacyImplementationName},
          {"authorization", authorizationLabel(readiness.authorization)},
          {"modelStatus", readiness.onDevice ? "installed" : "unavailable"},
          {"dictation", wireName(readiness.dictation)},
          {"protocolVersion", protocolVersion}};
}

}  // namespace palaver
