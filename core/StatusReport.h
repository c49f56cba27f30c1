// What the engines' reports have in common, and which engine serves this system.
#pragma once

#include <string_view>

#include "platform/Process.h"

namespace palaver {

// The language that status and health reports speak of, whatever languages sessions use.
inline constexpr std::string_view statusLocale = "ja-JP";

// The version of the commands and events.
inline constexpr int protocolVersion = 1;

// Whether the stream-based engine serves this system; else the task-based one does. Nothing but the version
// decides.
inline bool hasSpeechAnalyzer(const Process& process) {
  return process.isMacOSAtLeast({26, 0, 0});
}

}  // namespace palaver
