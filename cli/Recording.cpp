#include "cli/Recording.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "cli/ErrorDefinitions.h"
#include "cli/PCM.h"
#include "cli/writeFile.h"
#include "core/Base64Encoding.h"
#include "core/UTF8.h"

namespace palaver::cli {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr std::array<std::string_view, 3> speakerNames{"host", "helper", "diagnostics"};

std::string_view nameOf(Speaker speaker) {
  return speakerNames[static_cast<std::size_t>(speaker)];
}

std::optional<Speaker> speakerOf(const json& entry) {
  const auto name = entry.value("from", "");
  for (std::size_t i = 0; i < speakerNames.size(); ++i)
    if (name == speakerNames[i]) return static_cast<Speaker>(i);
  return std::nullopt;
}

[[noreturn]] void fail(const std::string& path, const std::string& why) {
  throw std::runtime_error(path + ": " + why);
}

// Length and loudness in place of samples.
json redactedAudio(const json& payload) {
  if (!payload.is_string()) return nullptr;
  const auto text = payload.get<std::string>();
  const auto samples = decodedPCM(text);
  if (!samples) return {{"characters", text.size()}};
  return {{"frames", samples->size()}, {"rms", loudnessOf(*samples)}};
}

// Whether the text of this key is the protocol's own and not somebody's words.
bool isPlain(const std::string& key) {
  static const std::set<std::string> plain{
      "type",   "source",        "sessionId",   "utteranceId", "locale",   "status", "implementation",
      "module", "authorization", "modelStatus", "dictation",   "provider", "reason"};
  return plain.contains(key);
}

json redacted(const json& value, const std::string& key) {
  if (value.is_object()) {
    json result = json::object();
    for (const auto& [name, member] : value.items())
      result[name] = name == "pcmBase64" ? redactedAudio(member) : redacted(member, name);
    if (value.value("type", json()) == "helper.error" && value.contains("message") &&
        value.at("message").is_string())
      result["code"] = errorCode(value.at("message").get<std::string>());
    return result;
  }
  if (value.is_array()) return {{"elements", value.size()}};
  if (value.is_string() && !isPlain(key)) return {{"characters", value.get<std::string>().size()}};
  return value;
}

double numberAt(const json& entry, const char* key) {
  const auto member = entry.find(key);
  return member != entry.end() && member->is_number() ? member->get<double>() : 0;
}

}  // namespace

std::string redactedLine(std::string_view line) {
  const auto value = json::parse(line, nullptr, false);
  if (!value.is_object()) return json{{"bytes", line.size()}}.dump();
  return redacted(value, "").dump(-1, ' ', false, json::error_handler_t::replace);
}

RecordedConversation readConversation(const std::filesystem::path& path) {
  std::ifstream file(path);
  if (!file) fail(path.string(), "cannot be opened");
  RecordedConversation conversation;
  std::string line;
  if (!std::getline(file, line)) fail(path.string(), "is empty");
  const auto head = json::parse(line, nullptr, false);
  if (!head.is_object() || numberAt(head, "recording") != 1)
    fail(path.string(), "is not a recording of palaver-stt");
  conversation.startedAt = numberAt(head, "startedAt");
  conversation.isRedacted = head.value("redacted", json(false)) == true;
  for (const auto& word : head.value("command", json::array()))
    if (word.is_string()) conversation.command.push_back(word.get<std::string>());
  for (std::size_t number = 2; std::getline(file, line); ++number) {
    const auto entry = json::parse(line, nullptr, false);
    if (!entry.is_object()) {
      if (file.eof()) break;  // cut off in the middle of a line
      fail(path.string(), "line " + std::to_string(number) + " is damaged");
    }
    const auto speaker = speakerOf(entry);
    if (!speaker) fail(path.string(), "line " + std::to_string(number) + " has no speaker");
    if (entry.contains("end")) {
      conversation.end = entry.value("end", json("")).is_string() ? entry.at("end").get<std::string>() : "";
      continue;
    }
    RecordedPiece piece{.at = numberAt(entry, "at"), .from = *speaker, .bytes = {}};
    if (entry.contains("text") && entry.at("text").is_string()) {
      piece.bytes = entry.at("text").get<std::string>();
    } else if (const auto bytes = decodedBase64(entry.value("base64", json("*")).is_string()
                                                    ? entry.value("base64", std::string("*"))
                                                    : std::string("*"))) {
      piece.bytes.assign(bytes->begin(), bytes->end());
    } else {
      fail(path.string(), "line " + std::to_string(number) + " holds neither text nor Base64");
    }
    conversation.pieces.push_back(std::move(piece));
  }
  return conversation;
}

RecordingWriter::RecordingWriter(const std::filesystem::path& path, const std::vector<std::string>& command,
                                 double startedAt, bool redacted)
    : file_(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0600)),
      path_(path.string()),
      redacted_(redacted) {
  if (!file_.isOpen()) fail(path_, std::generic_category().message(errno));
  const ordered_json head{
      {"recording", 1}, {"startedAt", startedAt}, {"redacted", redacted}, {"command", command}};
  writeLine(head.dump(-1, ' ', false, ordered_json::error_handler_t::replace));
}

void RecordingWriter::add(double at, Speaker from, std::string_view bytes) {
  if (bytes.empty()) return;
  if (redacted_) return addLines(at, from, bytes);
  ordered_json entry{{"at", at}, {"from", nameOf(from)}};
  if (isValidUTF8(bytes)) {
    entry["text"] = bytes;
  } else {
    entry["base64"] = encodeBase64({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
  }
  writeLine(entry.dump());
}

void RecordingWriter::addLines(double at, Speaker from, std::string_view bytes) {
  auto& unfinished = unfinished_[static_cast<std::size_t>(from)];
  unfinished += bytes;
  for (std::size_t end; (end = unfinished.find('\n')) != std::string::npos; unfinished.erase(0, end + 1)) {
    const ordered_json entry{{"at", at},
                             {"from", nameOf(from)},
                             {"text", redactedLine(std::string_view(unfinished).substr(0, end)) + "\n"}};
    writeLine(entry.dump());
  }
}

void RecordingWriter::end(double at, const std::string& how) {
  writeLine(ordered_json{{"at", at}, {"from", "helper"}, {"end", how}}.dump());
}

void RecordingWriter::writeLine(std::string line) {
  line += '\n';
  if (!writeAll(file_.get(), line)) fail(path_, std::generic_category().message(errno));
}

}  // namespace palaver::cli
