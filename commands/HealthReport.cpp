#include "commands/HealthReport.h"

#include "core/JSONLineWriter.h"
#include "legacy/LegacyReadiness.h"
#include "platform/Platform.h"

namespace palaver {

void emitHealth(Platform& platform, JSONLineWriter& writer, DictationProbe& dictation) {
  const auto readiness = legacyReadiness(platform, dictation);
  Event event = statusEvent(readiness);
  if (readiness.dictation == DictationAvailability::disabled) event["message"] = dictationSetupMessage;
  writer.write(event);
}

}  // namespace palaver
