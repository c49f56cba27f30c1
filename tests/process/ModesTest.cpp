// Tests which mode the first argument selects, its events and its exit status.
#include <gmock/gmock.h>

#include "tests/support/HelperProcess.h"

namespace palaver {
namespace {

using ::testing::ElementsAre;

std::vector<std::string> keysOf(const nlohmann::json& event) {
  std::vector<std::string> keys;
  for (auto member = event.begin(); member != event.end(); ++member) keys.push_back(member.key());
  return keys;
}

struct Outcome {
  std::vector<nlohmann::json> events;
  std::string text;
  std::optional<HelperProcess::End> end;
  std::string errorText;
};

// Runs a one-shot mode to its end. Its input stays open.
Outcome run(const std::vector<std::string>& arguments) {
  HelperProcess helper(arguments);
  Outcome outcome;
  while (const auto line = helper.readLine()) {
    outcome.text += *line + "\n";
    outcome.events.push_back(nlohmann::json::parse(*line, nullptr, false));
  }
  outcome.end = helper.wait();
  outcome.errorText = helper.errorText();
  return outcome;
}

void expectOneError(const Outcome& outcome, const std::string& message, int status) {
  ASSERT_EQ(outcome.events.size(), 1U) << outcome.text;
  EXPECT_THAT(keysOf(outcome.events[0]), ElementsAre("at", "message", "type"));
  EXPECT_EQ(outcome.events[0]["type"], "helper.error");
  EXPECT_EQ(outcome.events[0]["message"], message);
  EXPECT_EQ(outcome.end, exited(status));
  EXPECT_EQ(outcome.errorText, "");
}

constexpr auto usage = "Usage: --research-transcribe-file <wav-path> <vocabulary-json-path>";
constexpr auto researchNeedsMacOS26 =
    "Offline research probe requires macOS 26 and Swift 6.2; legacy recognition is not measured by this "
    "command";
constexpr auto assetsNeedMacOS26 =
    "SpeechAnalyzer assets require macOS 26 and the macOS 26 SDK (Xcode/Command Line Tools 26)";

TEST(ModesTest, HealthWritesOneReportAndExits0) {
  const auto outcome = run({"--health"});
  ASSERT_EQ(outcome.events.size(), 1U) << outcome.text;
  const auto& report = outcome.events[0];
  auto keys = keysOf(report);
  std::erase(keys, "message");  // only when Dictation is disabled
  EXPECT_THAT(keys, ElementsAre("authorization", "available", "dictation", "implementation", "modelStatus",
                                "protocolVersion", "status", "type"));
  EXPECT_EQ(report.contains("message"), report["dictation"] == "disabled");
  EXPECT_EQ(report["type"], "helper.status");
  EXPECT_EQ(report["implementation"], "sf-speech-recognizer");
  EXPECT_EQ(report["protocolVersion"], 1);
  EXPECT_EQ(report["available"], report["status"] == "ready");
  EXPECT_EQ(outcome.end, exited(0));
  EXPECT_EQ(outcome.errorText, "");
}

TEST(ModesTest, OnlyFirstArgumentSelectsMode) {
  const auto outcome = run({"--health", "--authorize", "--install-assets"});
  ASSERT_EQ(outcome.events.size(), 1U);
  EXPECT_EQ(outcome.events[0]["type"], "helper.status");
  EXPECT_EQ(outcome.end, exited(0));
}

TEST(ModesTest, AuthorizeWritesAnswerAndExits0) {
  for (const auto& arguments : {std::vector<std::string>{"--authorize"}, {"--authorize", "--health", "x"}}) {
    const auto outcome = run(arguments);
    ASSERT_EQ(outcome.events.size(), 1U) << outcome.text;
    EXPECT_THAT(keysOf(outcome.events[0]), ElementsAre("authorized", "status", "type"));
    EXPECT_EQ(outcome.events[0]["type"], "helper.authorization");
    EXPECT_EQ(outcome.events[0]["authorized"], outcome.events[0]["status"] == "authorized");
    EXPECT_EQ(outcome.end, exited(0));
    EXPECT_EQ(outcome.errorText, "");
  }
}

TEST(ModesTest, InstallAssetsExits1OnOlderSystem) {
  expectOneError(run({"--install-assets"}), assetsNeedMacOS26, 1);
  expectOneError(run({"--install-assets", "en-US"}), assetsNeedMacOS26, 1);
  expectOneError(run({"--install-assets", "en-US", "more"}), assetsNeedMacOS26, 1);
}

TEST(ModesTest, ResearchWithoutTwoPathsExits2) {
  expectOneError(run({"--research-transcribe-file"}), usage, 2);
  expectOneError(run({"--research-transcribe-file", "a.wav"}), usage, 2);
  expectOneError(run({"--research-transcribe-file", "a.wav", "v.json", "more"}), usage, 2);
}

TEST(ModesTest, ResearchExits1OnOlderSystem) {
  expectOneError(run({"--research-transcribe-file", "a.wav", "v.json"}), researchNeedsMacOS26, 1);
  expectOneError(run({"--research-transcribe-file", "", ""}), researchNeedsMacOS26, 1);
}

TEST(ModesTest, EventsHaveSortedKeysAndNoWhiteSpace) {
  for (const auto& arguments :
       {std::vector<std::string>{"--health"}, {"--authorize"}, {"--install-assets"}}) {
    const auto outcome = run(arguments);
    ASSERT_EQ(outcome.events.size(), 1U);
    EXPECT_EQ(outcome.text, outcome.events[0].dump() + "\n");  // the test's parser keeps keys sorted
  }
}

TEST(ModesTest, OtherArgumentsSelectCommandLoop) {
  const std::vector<std::vector<std::string>> all{{},
                                                  {"--helth"},
                                                  {"--Health"},
                                                  {"-health"},
                                                  {"health"},
                                                  {""},
                                                  {"--"},
                                                  {"--help"},
                                                  {"--health "},
                                                  {"--health=1"},
                                                  {"-h"},
                                                  {"x", "--health"},
                                                  {"--version"},
                                                  {"\xFF\xFE"},
                                                  {"--authorise"},
                                                  {"--install_assets"},
                                                  {"--research"},
                                                  {std::string(100000, 'x')}};
  for (const auto& arguments : all) {
    HelperProcess helper(arguments);
    const auto status = helper.readEvent();
    ASSERT_TRUE(status.is_object());
    EXPECT_EQ(status["type"], "helper.status");
    EXPECT_TRUE(helper.sendLine(R"({"type":"ping","sentAt":7})"));
    EXPECT_EQ(helper.readEvent()["sentAt"], 7);
    helper.closeInput();
    EXPECT_EQ(helper.readRest(), "");
    EXPECT_EQ(helper.wait(), exited(0));
    EXPECT_EQ(helper.errorText(), "");
  }
}

TEST(ModesTest, ProgramNameIsNotAnArgument) {
  for (const auto* const name : {"", "--health", "--authorize", "--install-assets"}) {
    HelperProcess helper(HelperProcess::Options{.argument0 = name});
    EXPECT_EQ(helper.readEvent()["type"], "helper.status");
    helper.closeInput();
    EXPECT_EQ(helper.readRest(), "");
    EXPECT_EQ(helper.wait(), exited(0));
  }
}

TEST(ModesTest, EnvironmentMarkerHasNoEffectHere) {
  for (const auto* const variable : {"PALAVER_DISCLAIMED=1", "PALAVER_DISCLAIMED=0", "LC_ALL=de_DE.UTF-8"}) {
    HelperProcess helper(HelperProcess::Options{.environment = {variable}});
    EXPECT_EQ(helper.readEvent()["type"], "helper.status");
    EXPECT_TRUE(helper.sendLine(R"({"type":"ping","sentAt":1234.5})"));
    EXPECT_EQ(helper.readEvent()["sentAt"], 1234.5);
    helper.closeInput();
    EXPECT_EQ(helper.wait(), exited(0));
    EXPECT_EQ(helper.errorText(), "");
  }
}

}  // namespace
}  // namespace palaver
