#include "tests/support/ConversationTest.h"

#include <utility>

#include "app/Helper.h"
#include "core/Base64Encoding.h"
#include "simulator/scenario/SyntheticAudio.h"

namespace palaver {

using nlohmann::json;

SimulatedPlatform& ConversationTest::machine() {
  if (!machine_) machine_.emplace(settings);
  return *machine_;
}

void ConversationTest::at(double time, std::function<void()> happens) {
  machine().scheduler.schedule(time, Timeline::Context::background, this, std::move(happens));
}

void ConversationTest::bytes(double time, std::string text) {
  at(time, [this, text = std::move(text)] { machine().standardInput.arrive(text); });
}

void ConversationTest::host(double time, const json& command) {
  bytes(time, command.dump() + "\n");
}

void ConversationTest::audio(double time, double rms, const std::string& source) {
  host(time, {{"type", "audio"},
              {"sessionId", "a"},
              {"source", source},
              {"sequence", 0},
              {"capturedAt", settings.startsAt + time},
              {"pcmBase64", encodePCM(samplesOfLoudness(rms, 1600))}});
}

void ConversationTest::answers(double time, RecognitionAnswer answer) {
  at(time, [this, answer = std::move(answer)] {
    EXPECT_TRUE(machine().speechRecognition.answer(TaskChoice(), answer)) << "there is no task yet";
  });
}

std::optional<int> ConversationTest::play() {
  constexpr double oneDay = 24.0 * 60 * 60 * 1000;
  return machine().run(runHelper, oneDay);
}

std::vector<json> ConversationTest::events() {
  std::vector<json> all;
  for (const auto& line : machine().standardOutput.lines()) all.push_back(json::parse(line.text));
  return all;
}

std::vector<json> ConversationTest::events(const std::string& type) {
  auto all = events();
  std::erase_if(all, [&type](const json& event) { return event.at("type") != type; });
  return all;
}

std::string ConversationTest::errorOutput() {
  std::string text;
  for (const auto& line : machine().standardError.lines()) text += line.text + "\n";
  return text + machine().standardError.rest();
}

}  // namespace palaver
