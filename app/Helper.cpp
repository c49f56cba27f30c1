#include "app/Helper.h"

#include <span>
#include <string>

#include "app/makeSpeechBackend.h"
#include "core/CommandChannel.h"
#include "core/CommandHandler.h"
#include "core/JSONLineWriter.h"
#include "core/Protocol.h"
#include "core/SpeechBackend.h"
#include "core/endProcess.h"
#include "legacy/DictationProbe.h"
#include "modes/AuthorizationRequest.h"
#include "modes/HealthReport.h"
#include "modes/ModelAssets.h"
#include "modes/ResearchTranscription.h"
#include "platform/MainQueue.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "platform/StandardStreams.h"

namespace palaver {

namespace {

[[noreturn]] void runCommandLoop(Platform& platform, JSONLineWriter& writer, DictationProbe& dictation) {
  const auto backend = makeSpeechBackend(platform, writer, dictation);
  backend->emitStatus();
  CommandHandler handler(platform, writer, *backend);
  CommandChannel channel(platform.mainQueue, writer, handler);
  try {
    platform.standardInput.start(channel);
    platform.mainQueue.run();
  } catch (const std::exception& failure) {
    // The reader thread may still use the channel, so nothing is unwound.
    failProcess(platform.process, writer, failure);
  }
}

}  // namespace

void runHelper(Platform& platform) {
  JSONLineWriter writer(platform.clock, platform.standardOutput, platform.standardError);
  DictationProbe dictation(platform);
  const auto arguments =
      std::span(platform.process.arguments()).subspan(platform.process.arguments().empty() ? 0 : 1);
  const std::string_view mode = arguments.empty() ? std::string_view() : std::string_view(arguments.front());

  if (mode == "--research-transcribe-file") runResearchTranscription(platform, writer, arguments.subspan(1));
  if (mode == "--health") {
    emitHealth(platform, writer, dictation);
    endProcess(platform.process, writer, 0);
  }
  if (mode == "--authorize") {
    requestLegacyAuthorization(platform, writer);
    endProcess(platform.process, writer, 0);
  }
  if (mode == "--install-assets")
    installSpeechAnalyzerAssets(platform, writer, arguments.size() > 1 ? arguments[1] : defaultLocale);
  runCommandLoop(platform, writer, dictation);
}

}  // namespace palaver
