// Generates docs/states.md by running the helper in every state of the simulated machine, and compares it
// with the file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "app/Helper.h"
#include "platform/StandardStreams.h"
#include "simulator/machine/SimulatedPlatform.h"
#include "simulator/scenario/SyntheticAudio.h"

namespace palaver {

namespace {

using nlohmann::json;

constexpr const char* head = R"(# States

What the helper says in every state of the machine. This page is made from the helper itself, in simulation, and a test fails
when it differs. After a change that is meant, write it anew with

```
PALAVER_WRITE_STATES=1 ctest --preset dev -R StateTable
```

`audio is answered with` shows what comes of the first chunk of a session in Japanese; nothing means that the recognizer got
it. `--health` shows the `status` there and the exit status of the process. Letters stand for texts, listed at the end.

)";

// Assigns letters to texts.
class Legend {
 public:
  std::string letterFor(const std::string& text) {
    const auto next = std::string(1, static_cast<char>('A' + letters_.size()));
    return letters_.emplace(text, next).first->second;
  }
  std::string table() const {
    std::map<std::string, std::string> texts;
    for (const auto& [text, letter] : letters_) texts[letter] = text;
    std::string lines = "## Texts\n\n| | |\n|---|---|\n";
    for (const auto& [letter, text] : texts)
      lines.append("| ").append(letter).append(" | ").append(text).append(" |\n");
    return lines;
  }

 private:
  std::map<std::string, std::string> letters_;
};

struct Run {
  std::vector<json> events;
  std::optional<int> exitStatus;
};

Run run(SimulatedSettings settings, const std::string& argument, bool withSession) {
  if (!argument.empty()) settings.arguments = {argument};
  SimulatedPlatform machine(settings);
  const auto send = [&](double time, const json& command) {
    machine.scheduler.schedule(time, Timeline::Context::background, &machine,
                               [&machine, command] { machine.standardInput.arrive(command.dump() + "\n"); });
  };
  if (withSession) {
    send(5000, {{"type", "session.start"}, {"sessionId", "a"}});
    send(6000, {{"type", "audio"},
                {"sessionId", "a"},
                {"source", "remote"},
                {"sequence", 1},
                {"capturedAt", settings.startsAt},
                {"pcmBase64", pcmBase64(samplesOfLoudness(0.1, 1600))}});
  }
  Run result;
  result.exitStatus = machine.run(runHelper, 1e6);
  for (const auto& line : machine.standardOutput.lines()) result.events.push_back(json::parse(line.text));
  return result;
}

// Returns the value of an event's key as a cell, or an empty text when the key is missing.
std::string cell(const json& event, const char* key) {
  if (!event.contains(key)) return "";
  return "`" + (event.at(key).is_string() ? event.at(key).get<std::string>() : event.at(key).dump()) + "`";
}

std::string row(const std::vector<std::string>& cells) {
  std::string line = "|";
  for (const auto& text : cells) line += text.empty() ? " |" : " " + text + " |";
  return line + "\n";
}

class StateTable {
 public:
  std::string page() {
    // Texts get their letters in the order of the page.
    std::string text = head + legacyTable() + "\n";
    text += analyzerTable() + "\n";
    return text + legend_.table();
  }

 private:
  std::string letter(const json& event) {
    return event.contains("message") ? legend_.letterFor(event.at("message")) : "";
  }
  // Returns the readiness of the session and the letter of the error after its first audio.
  std::pair<std::string, std::string> sessionOf(const Run& run) {
    std::string ready, answer;
    bool hasStarted = false;
    for (const auto& event : run.events) {
      const auto type = event.at("type").get<std::string>();
      if (type == "session.ready") ready = cell(event, "available");
      hasStarted = hasStarted || event.contains("sessionId");
      if (hasStarted && type == "helper.error") answer = letter(event);
    }
    return {ready.empty() ? "none" : ready, answer};
  }
  std::string healthOf(const SimulatedSettings& settings) {
    const auto health = run(settings, "--health", false);
    if (health.events.size() != 1) return "none";
    const auto& event = health.events.front();
    const auto message = letter(event);
    return cell(event, "status") + (message.empty() ? "" : " " + message) + ", exit status " +
           (health.exitStatus ? std::to_string(*health.exitStatus) : "none");
  }

  std::string legacyTable() {
    std::string table =
        "## Before macOS 26\n\nThe permission is undecided, refused and so on; of Japanese there is no "
        "recognizer at all "
        "(none),\none without model (missing), or one with it (installed). `helper.status` comes at the "
        "start.\n\n" +
        row({"permission", "model", "Dictation", "`status`", "`available`", "`authorization`",
             "`modelStatus`", "`dictation`", "`message`", "`--health`", "`session.ready`",
             "audio is answered with"}) +
        "|---|---|---|---|---|---|---|---|---|---|---|---|\n";
    const std::pair<const char*, AuthorizationStatus> permissions[]{
        {"undecided", AuthorizationStatus::notDetermined},
        {"denied", AuthorizationStatus::denied},
        {"restricted", AuthorizationStatus::restricted},
        {"granted", AuthorizationStatus::authorized},
        {"something new", static_cast<AuthorizationStatus>(9)}};
    for (const auto& [permission, authorization] : permissions)
      for (const auto* const model : {"none", "missing", "installed"})
        for (const auto* const dictation : {"on", "off", "does not answer"}) {
          SimulatedSettings settings;
          settings.recognition.authorization = authorization;
          settings.recognition.locales.clear();
          if (model != std::string("none"))
            settings.recognition.locales["ja-JP"] = model == std::string("installed");
          settings.recognition.dictationIsOn = dictation != std::string("off");
          if (dictation == std::string("does not answer")) settings.recognition.probeAnswersAfter.reset();
          const auto loop = run(settings, "", true);
          const auto& status = loop.events.at(0);
          const auto [ready, answer] = sessionOf(loop);
          table += row({permission, model, dictation, cell(status, "status"), cell(status, "available"),
                        cell(status, "authorization"), cell(status, "modelStatus"), cell(status, "dictation"),
                        letter(status), healthOf(settings), ready, answer});
        }
    return table;
  }

  std::string analyzerTable() {
    std::string table =
        "## macOS 26 and later\n\nThe transcriber is available on the machine or not, and serves Japanese or "
        "not. "
        "Permission and Dictation\nplay no part. The first `helper.status` comes at the start, the second "
        "when the model has "
        "been looked up.\n\n" +
        row({"transcriber", "Japanese", "model", "first `status`", "second `status`", "`available`",
             "`modelStatus`", "`message`, or error instead of the status", "`--health`", "`session.ready`",
             "audio is answered with"}) +
        "|---|---|---|---|---|---|---|---|---|---|---|\n";
    for (const bool isAvailable : {true, false})
      for (const bool isSupported : {true, false})
        for (const auto model : {AssetStatus::unsupported, AssetStatus::supported, AssetStatus::downloading,
                                 AssetStatus::installed}) {
          SimulatedSettings settings;
          settings.macOS = OperatingSystemVersion{26, 0, 0};
          settings.analysis.isAvailable = isAvailable;
          if (!isSupported) settings.analysis.locales.clear();
          settings.analysis.model = model;
          const auto loop = run(settings, "", true);
          const auto& second = loop.events.at(1);
          const auto [ready, answer] = sessionOf(loop);
          table += row({isAvailable ? "available" : "not available",
                        isSupported ? "supported" : "not supported", std::string(wireName(model)),
                        cell(loop.events.at(0), "status"), cell(second, "status"), cell(second, "available"),
                        cell(second, "modelStatus"), letter(second), healthOf(settings), ready, answer});
        }
    return table;
  }

  Legend legend_;
};

const std::filesystem::path pagePath = std::filesystem::path(PALAVER_SOURCE_DIRECTORY) / "docs" / "states.md";

TEST(StateTable, PageMatchesHelper) {
  const auto page = StateTable().page();
  if (std::getenv("PALAVER_WRITE_STATES")) std::ofstream(pagePath) << page;
  std::ifstream file(pagePath);
  std::istringstream actual{std::string(std::istreambuf_iterator<char>(file), {})};
  std::istringstream expected(page);
  std::string written, made;
  for (int line = 1; std::getline(expected, made); ++line) {
    ASSERT_TRUE(std::getline(actual, written)) << "docs/states.md ends before line " << line;
    EXPECT_EQ(written, made) << "docs/states.md, line " << line;
  }
  EXPECT_FALSE(std::getline(actual, written)) << "docs/states.md has more lines: " << written;
}

}  // namespace
}  // namespace palaver
