// Tests the end of the backend. Its conversations are scenarios.
#include "legacy/LegacySpeechBackend.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "core/Base64Encoding.h"
#include "core/JSONLineWriter.h"
#include "legacy/DictationProbe.h"
#include "simulator/machine/SimulatedPlatform.h"
#include "simulator/scenario/SyntheticAudio.h"

namespace palaver {

namespace {

TEST(LegacySpeechBackendEnd, NamesItsImplementation) {
  SimulatedPlatform machine;
  machine.run(
      [](Platform& platform) {
        JSONLineWriter writer(platform.clock, platform.standardOutput, platform.standardError);
        DictationProbe dictation(platform);
        EXPECT_EQ(LegacySpeechBackend(platform, writer, dictation).implementationName(),
                  "sf-speech-recognizer");
      },
      1);
}

TEST(LegacySpeechBackendEnd, StopAllFlushesOnceAndForgetsSessions) {
  SimulatedPlatform machine;
  machine.run(
      [&machine](Platform& platform) {
        JSONLineWriter writer(platform.clock, platform.standardOutput, platform.standardError);
        DictationProbe dictation(platform);
        LegacySpeechBackend backend(platform, writer, dictation);
        const auto chunk = encodePCM(samplesOfLoudness(0.1, 1600));
        const auto at = [&](double time, auto operation) {
          machine.scheduler.schedule(time, Timeline::Context::background, &machine,
                                     [&platform, operation] { platform.mainQueue.async(operation); });
        };
        at(100, [&] { backend.startSession("x", "ja-JP", {}); });
        at(200, [&] { backend.appendAudio("x", AudioSource::remote, 0, 1000, chunk); });
        at(300, [&] {
          machine.speechRecognition.answer(TaskChoice(), {RecognitionResult{"text", {}, false}, {}});
        });
        at(400, [&] { backend.stopAll(); });
        at(500, [&] {
          backend.stopSession("x");
          backend.stopAll();
          backend.appendAudio("x", AudioSource::remote, 0, 1000, chunk);
        });
        platform.mainQueue.run();
      },
      1e6);
  std::vector<std::string> types;
  for (const auto& line : machine.standardOutput.lines())
    types.push_back(nlohmann::json::parse(line.text).at("type"));
  EXPECT_EQ(types, (std::vector<std::string>{"session.ready", "transcript.partial", "transcript.final",
                                             "helper.error"}));
  ASSERT_EQ(machine.speechRecognition.requests().size(), 1u);
  EXPECT_EQ(machine.speechRecognition.requests()[0].cancelledAt, 400);
}

}  // namespace

}  // namespace palaver
