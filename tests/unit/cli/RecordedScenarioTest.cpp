#include "cli/RecordedScenario.h"

#include <gmock/gmock.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "core/Base64Encoding.h"
#include "simulator/scenario/ScenarioRunner.h"
#include "tests/support/TemporaryFolder.h"

namespace palaver::cli {
namespace {

using nlohmann::json;

constexpr double start = 1'700'000'000'000;

// Plays the scenarios of conversations that are made up.
class RecordedScenarioTest : public testing::Test {
 protected:
  RecordedScenarioTest() {
    recorded.startedAt = start;
    helper(10, {{"type", "helper.status"}, {"implementation", "sf-speech-recognizer"}});
    host(50, {{"type", "session.start"}, {"sessionId", "s"}, {"locale", "en-US"}});
  }
  void host(double at, const json& command) {
    recorded.pieces.push_back({at, Speaker::host, command.dump() + "\n"});
  }
  void helper(double at, const json& event) {
    recorded.pieces.push_back({at, Speaker::helper, event.dump() + "\n"});
  }
  void audio(double at, const char* source, std::int16_t first) {
    std::vector<std::int16_t> samples(1600, first == 0 ? std::int16_t{0} : std::int16_t{5000});
    samples[0] = first;
    host(at, {{"type", "audio"},
              {"sessionId", "s"},
              {"source", source},
              {"sequence", 0},
              {"capturedAt", start + at - 100},
              {"pcmBase64", encodePCM(samples)}});
  }
  void transcript(double at, const char* type, const char* source, const char* text, double startedAt,
                  const char* reason = "silence") {
    helper(at, {{"type", type},
                {"sessionId", "s"},
                {"source", source},
                {"text", text},
                {"startedAt", start + startedAt},
                {"endpointing", {{"reason", reason}}}});
  }
  // Returns the report of playing the scenario, or "".
  std::string report() const {
    const auto file = folder.path() / "scenario.json";
    std::ofstream(file) << scenarioOf(recorded, "title");
    return play(readScenario(file)).value_or("");
  }
  json finals() const { return json::parse(scenarioOf(recorded, "title")).at("finals"); }

  RecordedConversation recorded;
  TemporaryFolder folder;
};

TEST_F(RecordedScenarioTest, ConcurrentUtterancesHaveTheirOwnFinals) {
  // Both sources have a chunk that begins with 100.
  for (int i = 0; i < 10; ++i) {
    audio(200 + 100 * i, "remote", static_cast<std::int16_t>(100 + i));
    audio(200 + 100 * i + 1, "self", static_cast<std::int16_t>(i == 0 ? 100 : 300 + i));
  }
  transcript(1110, "transcript.partial", "remote", "one", 100);
  transcript(1111, "transcript.partial", "self", "two", 101);
  for (int i = 0; i < 12; ++i) {
    audio(1200 + 100 * i, "remote", 0);
    audio(1200 + 100 * i + 1, "self", 0);
  }
  transcript(2310, "transcript.final", "self", "two b", 101);
  transcript(2320, "transcript.final", "remote", "one a", 100);
  EXPECT_EQ(finals(), json::parse(R"({"remote": ["one a"], "self": ["two b"]})"));
  EXPECT_EQ(report(), "");
}

TEST_F(RecordedScenarioTest, FinalOfStoppedSessionIsMadeByHelper) {
  audio(200, "remote", 100);
  transcript(300, "transcript.partial", "remote", "half a", 100);
  host(400, {{"type", "session.stop"}, {"sessionId", "s"}});
  transcript(401, "transcript.final", "remote", "half a", 100, "flush");
  EXPECT_EQ(report(), "");
  recorded.pieces.back().bytes = json{{"type", "transcript.final"},
                                      {"source", "remote"},
                                      {"text", "other"},
                                      {"endpointing", {{"reason", "flush"}}}}
                                     .dump() +
                                 "\n";
  EXPECT_EQ(report(), "  final 1 of remote:\n    - other\n    + half a\n");
}

TEST_F(RecordedScenarioTest, ShutdownEndsTheScenario) {
  audio(200, "remote", 100);
  transcript(300, "transcript.partial", "remote", "bye", 100);
  host(400, {{"type", "shutdown"}});
  transcript(401, "transcript.final", "remote", "bye", 100, "flush");
  EXPECT_EQ(finals(), json::parse(R"({"remote": ["bye"]})"));
  EXPECT_EQ(report(), "");
}

TEST_F(RecordedScenarioTest, AnyBytesAreSaidAgain) {
  recorded.pieces.push_back({100, Speaker::host, "\xFF\xFE\n{\"type\":\"pi"});
  recorded.pieces.push_back({101, Speaker::host, "ng\"}\n"});
  recorded.pieces.push_back({102, Speaker::diagnostics, "log\n"});
  EXPECT_EQ(report(), "");
}

TEST_F(RecordedScenarioTest, AnalyzersAreNumberedBySessionAndMute) {
  recorded.pieces[0].bytes = R"({"type":"helper.status","implementation":"speech-analyzer"})"
                             "\n";
  audio(200, "self", 100);
  transcript(300, "transcript.final", "self", "before", 100, "framework");
  host(400, {{"type", "source.suppress"}, {"sessionId", "s"}, {"source", "self"}, {"suppressed", true}});
  host(500, {{"type", "source.suppress"}, {"sessionId", "s"}, {"source", "self"}, {"suppressed", false}});
  audio(600, "self", 100);
  audio(601, "remote", 100);
  transcript(700, "transcript.final", "self", "after", 500, "framework");
  transcript(701, "transcript.final", "remote", "far", 501, "framework");
  EXPECT_EQ(report(), "");
}

TEST_F(RecordedScenarioTest, RedactedRecordingIsRefused) {
  recorded.isRedacted = true;
  EXPECT_THROW(scenarioOf(recorded, "title"), std::runtime_error);
}

}  // namespace
}  // namespace palaver::cli
