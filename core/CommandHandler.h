// Validates commands and dispatches them to the backend.
#pragma once

#include <exception>

#include "core/HelperCommand.h"

namespace palaver {

class JSONLineWriter;
class SpeechBackend;
struct Platform;

// Main thread only, except fail().
class CommandHandler {
 public:
  CommandHandler(Platform& platform, JSONLineWriter& writer, SpeechBackend& backend)
      : platform_(platform), writer_(writer), backend_(backend) {}

  // Handles one command. Every outcome is an event. "shutdown" ends the process.
  void handle(const HelperCommand& command);

  // Stops every session and ends the process with status 0. Called at the end of the input.
  [[noreturn]] void shutDown();

  // Ends the process after a failure of the reader that leaves it unable to work. Any thread.
  [[noreturn]] void fail(const std::exception& failure);

 private:
  void dispatch(const HelperCommand& command);

  Platform& platform_;
  JSONLineWriter& writer_;
  SpeechBackend& backend_;
};

}  // namespace palaver
