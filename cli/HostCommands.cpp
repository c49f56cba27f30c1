#include "cli/HostCommands.h"

#include <nlohmann/json.hpp>

namespace palaver::host {

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
  std::vector<std::uint8_t> bytes;
  bytes.reserve(frames.size() * sizeof(std::int16_t));
  for (const auto frame : frames) {
    const auto bits = static_cast<std::uint16_t>(frame);
    bytes.push_back(static_cast<std::uint8_t>(bits & 0xFF));
    bytes.push_back(static_cast<std::uint8_t>(bits >> 8));
  }
  return line({{"type", "audio"},
               {"sessionId", sessionId},
               {"source", rawValue(source)},
               {"sequence", sequence},
               {"capturedAt", capturedAt},
               {"pcmBase64", encodeBase64(bytes)}});
}

std::string encodeBase64(std::span<const std::uint8_t> bytes) {
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const auto left = bytes.size() - at;
    const std::uint32_t group = (std::uint32_t{bytes[at]} << 16) |
                                (left > 1 ? std::uint32_t{bytes[at + 1]} << 8 : 0U) |
                                (left > 2 ? std::uint32_t{bytes[at + 2]} : 0U);
    text += alphabet[group >> 18];
    text += alphabet[(group >> 12) & 63];
    text += left > 1 ? alphabet[(group >> 6) & 63] : '=';
    text += left > 2 ? alphabet[group & 63] : '=';
  }
  return text;
}

}  // namespace palaver::host
