#include "core/CommandHandler.h"

#include <new>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

#include "core/JSONLineWriter.h"
#include "core/Protocol.h"
#include "core/SpeechBackend.h"
#include "core/endProcess.h"
#include "platform/Clock.h"
#include "platform/Platform.h"
#include "platform/Process.h"

namespace palaver {

void CommandHandler::handle(const HelperCommand& command) {
  try {
    dispatch(command);
  } catch (const std::bad_alloc&) {
    writer_.error("The command does not fit into memory", command.sessionId, command.source);
  }
}

void CommandHandler::dispatch(const HelperCommand& command) {
  const auto& [type, sessionId, source, locale, vocabulary, sequence, capturedAt, pcmBase64, suppressed,
               sentAt] = command;
  if (type == "ping") {
    writer_.write(
        {{"type", "pong"}, {"sentAt", sentAt.value_or(0)}, {"helperAt", platform_.clock.nowMilliseconds()}});
  } else if (type == "session.start") {
    if (!sessionId) return writer_.error("session.start requires sessionId");
    std::span<const std::string_view> phrases;
    if (vocabulary) phrases = *vocabulary;
    backend_.startSession(*sessionId, locale.value_or(defaultLocale), phrases);
  } else if (type == "audio") {
    if (!sessionId || !source || !sequence || !capturedAt || !pcmBase64)
      return writer_.error("audio requires sessionId, source, sequence, capturedAt, and pcmBase64");
    backend_.appendAudio(*sessionId, *source, *sequence, *capturedAt, *pcmBase64);
  } else if (type == "source.suppress") {
    if (!sessionId || !source || !suppressed)
      return writer_.error("source.suppress requires sessionId, source, and suppressed");
    backend_.setSuppressed(*sessionId, *source, *suppressed);
  } else if (type == "session.stop") {
    if (!sessionId) return writer_.error("session.stop requires sessionId");
    backend_.stopSession(*sessionId);
  } else if (type == "shutdown") {
    shutDown();
  } else {
    writer_.error(std::string("Unsupported command type: ").append(type), sessionId, source);
  }
}

void CommandHandler::fail(const std::exception& failure) {
  failProcess(platform_.process, writer_, failure);
}

void CommandHandler::shutDown() {
  writer_.limitStalls();
  backend_.stopAll();
  endProcess(platform_.process, writer_, 0);
}

}  // namespace palaver
