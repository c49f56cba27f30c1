#include "modes/HealthReport.h"

#include <nlohmann/json.hpp>

#include "analyzer/AnalyzerReadiness.h"
#include "analyzer/Spawn.h"
#include "core/BackendSelection.h"
#include "core/JSONLineWriter.h"
#include "core/endProcess.h"
#include "legacy/LegacyReadiness.h"
#include "platform/MainQueue.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "platform/SpeechAnalysis.h"
#include "platform/Tasks.h"

namespace palaver {

namespace {

asio::awaitable<void> reportAnalyzerHealth(Platform& platform, JSONLineWriter& writer) {
  std::optional<AssetStatus> model;
  if (platform.speechAnalysis.isTranscriberAvailable()) model = co_await japaneseModel(platform);
  if (!model) {
    writer.write({{"type", "helper.status"},
                  {"status", "unavailable"},
                  {"available", false},
                  {"implementation", analyzerImplementationName},
                  {"authorization", "not-required"},
                  {"modelStatus", "unsupported"},
                  {"protocolVersion", protocolVersion}});
    endProcess(platform.process, writer, 1);
  }
  writer.write(statusEvent(*model));
  endProcess(platform.process, writer, 0);
}

}  // namespace

void emitHealth(Platform& platform, JSONLineWriter& writer, DictationProbe& dictation) {
  if (hasSpeechAnalyzer(platform.process)) {
    spawn(platform.tasks.executor(), reportAnalyzerHealth(platform, writer));
    platform.mainQueue.run();
  }
  const auto readiness = legacyReadiness(platform, dictation);
  Event event = statusEvent(readiness);
  if (readiness.dictation == DictationAvailability::disabled) event["message"] = dictationSetupMessage;
  writer.write(event);
}

}  // namespace palaver
