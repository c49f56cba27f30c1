// Validates commands and dispatches them to the backend.
#pragma once

#include "core/HelperCommand.h"

namespace palaver {

class JSONLineWriter;
class SpeechBackend;
struct Platform;

// Lives on the main thread.
class CommandHandler {
 public:
  CommandHandler(Platform& platform, JSONLineWriter& writer, SpeechBackend& backend)
      : platform_(platform), writer_(writer), backend_(backend) {}

  // Handles one command; every outcome is an event. "shutdown" ends the process.
  void handle(const HelperCommand& command);

  // The input has ended: stops every session and ends the process with status 0.
  [[noreturn]] void shutDown();

 private:
  Platform& platform_;
  JSONLineWriter& writer_;
  SpeechBackend& backend_;
};

}  // namespace palaver
