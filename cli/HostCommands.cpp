#include "cli/HostCommands.h"
#include "core/Base64Encoding.h"

#include <nlohmann/json.hpp>

namespace palaver::cli {

namespace {

std::string line(const nlohmann::json& command) {
  return command.dump() + "\n";
}

}  // namespace

std::string sessionStart(std::string_view sessionId, std::string_view locale,
                         const std::vector<std::string>& vocabulary) {
  return line(
      {{"type", "session.start"}, {"sessionId", sessionId}, {"locale", locale}, {"vocabulary", vocabulary}});
}

std::string sessionStop(std::string_view sessionId) {
  return line({{"type", "session.stop"}, {"sessionId", sessionId}});
}

std::string audio(std::string_view sessionId, AudioSource source, std::int64_t sequence, double capturedAt,
                  std::span<const std::int16_t> frames) {
  return line({{"type", "audio"},
               {"sessionId", sessionId},
               {"source", rawValue(source)},
               {"sequence", sequence},
               {"capturedAt", capturedAt},
               {"pcmBase64", encodePCM(frames)}});
}

}  // namespace palaver::cli
