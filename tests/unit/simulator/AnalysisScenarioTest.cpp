// Tests that scenario checks of speech analysis and files can fail.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "simulator/scenario/ScenarioRunner.h"

namespace palaver {

namespace {

using testing::HasSubstr;

class AnalysisScenarioTest : public testing::Test {
 protected:
  AnalysisScenarioTest() { std::filesystem::create_directories(directory_); }
  ~AnalysisScenarioTest() override { std::filesystem::remove_all(directory_); }

  // Plays a scenario with these steps and additional members. Returns the report or the file error, or "".
  std::string played(const std::string& members, const std::string& steps = "") {
    const auto path = directory_ / "scenario.json";
    std::ofstream(path) << R"({"title": "t", "system": "macOS 26", "conversation": [)" + steps + "]" +
                               (members.empty() ? "" : ", ") + members + "}";
    try {
      return play(readScenario(path)).value_or("");
    } catch (const FileError& error) {
      return error.what();
    }
  }
  // Plays a session of two sources with one chunk. Leaves the output unexpected.
  std::string reportOnAnalyzers(const std::string& analyzers) {
    return played(R"("analyzers": )" + analyzers,
                  R"({"at": 100, "host": {"type": "session.start", "sessionId": "a"}},
                     {"at": 200, "audio": {"firstSample": 7}},
                     {"at": 300, "host": {"type": "session.stop", "sessionId": "a"}})");
  }

  const std::filesystem::path directory_ = std::filesystem::path(testing::TempDir()) /
                                           testing::UnitTest::GetInstance()->current_test_info()->name();
};

constexpr const char* differs = "  analyzer ";

TEST_F(AnalysisScenarioTest, EveryAnalyzerKeyIsCompared) {
  EXPECT_THAT(
      reportOnAnalyzers(R"([{"locale": "ja_JP", "contextualStrings": [], "buffers": 1, "frames": [1600],
    "firstSamples": [7], "droppedBuffers": 0, "inputFinishedAt": 300, "finalizedAt": 300, "cancelledAt": null,
    "preparedFor": {"samples": "int16", "rate": 16000, "channels": 1, "interleaved": true},
    "formats": [{"samples": "int16", "rate": 16000, "channels": 1, "interleaved": false}]}, {}])"),
      Not(HasSubstr(differs)));
  for (const auto* const wrong :
       {R"("locale": "en_US")", R"("contextualStrings": ["a"])", R"("buffers": 2)", R"("frames": [1600, 1])",
        R"("firstSamples": [8])", R"("droppedBuffers": 1)", R"("inputFinishedAt": 299)",
        R"("finalizedAt": null)", R"("cancelledAt": 300)", R"("preparedFor": null)", R"("formats": [])"})
    EXPECT_THAT(reportOnAnalyzers(std::string("[{") + wrong + "}, {}]"), HasSubstr("  analyzer 1: "))
        << wrong;
}

TEST_F(AnalysisScenarioTest, AnalyzerCountIsCompared) {
  EXPECT_THAT(reportOnAnalyzers("[{}]"), HasSubstr("analyzers: 2 were made instead of 1"));
  EXPECT_THAT(reportOnAnalyzers("[{}, {}]"), Not(HasSubstr("were made")));
}

TEST_F(AnalysisScenarioTest, StepForMissingAnalyzerFails) {
  EXPECT_THAT(played("", R"({"analyzer": {"number": 1, "partial": "a"}})"),
              HasSubstr("no such analyzer yet"));
}

TEST_F(AnalysisScenarioTest, InvalidInputIsRejected) {
  EXPECT_THAT(reportOnAnalyzers(R"([{"words": 1}])"), HasSubstr("unknown key \"words\""));
  EXPECT_THAT(played(R"("platform": {"analysis": {"modell": "installed"}})"),
              HasSubstr("unknown key \"modell\""));
  EXPECT_THAT(played(R"("platform": {"analysis": {"model": "there"}})"),
              HasSubstr("unknown value \"there\""));
  EXPECT_THAT(played(R"("platform": {"analysis": {"prepare": {"before": 1}}})"), HasSubstr("\"before\""));
  EXPECT_THAT(played("", R"({"analyzer": {"partial": "a", "final": "b"}})"), HasSubstr("exactly one of"));
  EXPECT_THAT(played("", R"({"analyzer": {"partial": "a", "range": [0]}})"), HasSubstr("start and end"));
  EXPECT_THAT(played("", R"({"analyzer": {"partial": "a", "range": [0, "soon"]}})"), HasSubstr("\"soon\""));
  EXPECT_THAT(played(R"("files": {"f": {}})"), HasSubstr("exactly one of sound, phrases, text"));
  EXPECT_THAT(played(R"("files": {"a/b": {"text": ""}})"), HasSubstr("must be that of a file"));
}

}  // namespace
}  // namespace palaver
