// Tests that the checks of the scenario runner can fail.
#include "simulator/scenario/Scenario.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "simulator/scenario/ScenarioRunner.h"

namespace palaver {

namespace {

using testing::AllOf;
using testing::HasSubstr;

class ScenarioTest : public testing::Test {
 protected:
  ~ScenarioTest() override { std::filesystem::remove(path_); }

  // Plays a scenario with these steps after the usual status, and additional members. Returns the
  // report, or "".
  std::string report(const std::string& steps, const std::string& members = "") {
    write(R"({"title": "t", )" + members + R"("templates": "status.json", "conversation": [)" +
          R"({"at": 20, "out": "status"})" + (steps.empty() ? "" : ", " + steps) + "]}");
    return play(readScenario(path_)).value_or("");
  }
  // Returns the error of reading a file, or "".
  std::string fileError(const std::string& file) {
    write(file);
    try {
      readScenario(path_);
    } catch (const FileError& error) {
      return error.what();
    }
    return "";
  }

 private:
  void write(const std::string& file) {
    std::ofstream(path_) << file;
    std::ofstream(path_.parent_path() / "status.json") << R"({"status": {
      "type": "helper.status", "status": "ready", "available": true, "implementation": "sf-speech-recognizer",
      "authorization": "authorized", "modelStatus": "installed", "dictation": "enabled",
      "message": "On-device Japanese speech recognition is ready.", "protocolVersion": 1}})";
  }

  const std::filesystem::path directory_ = [] {
    auto path = std::filesystem::path(testing::TempDir()) /
                testing::UnitTest::GetInstance()->current_test_info()->name();
    std::filesystem::create_directories(path);
    return path;
  }();
  const std::filesystem::path path_ = directory_ / "scenario.json";
};

constexpr const char* ping = R"({"at": 100, "host": {"type": "ping", "sentAt": 5}})";

TEST_F(ScenarioTest, PassesWhenEverythingMatches) {
  EXPECT_EQ(report(""), "");
  EXPECT_EQ(report(std::string(ping) + R"(, {"out": {"type": "pong", "sentAt": 5, "helperAt": "@100"}})"),
            "");
}

TEST_F(ScenarioTest, FailsOnUnexpectedEvent) {
  EXPECT_THAT(report(ping), AllOf(HasSubstr("line 2: it was not expected"), HasSubstr("pong")));
}

TEST_F(ScenarioTest, FailsOnMissingEvent) {
  EXPECT_THAT(report(R"({"at": 100, "out": {"type": "pong"}})"), HasSubstr("line 2: it never came"));
}

TEST_F(ScenarioTest, FailsOnDifferentTime) {
  EXPECT_THAT(report(std::string(ping) +
                     R"(, {"at": 101, "out": {"type": "pong", "sentAt": 5, "helperAt": "@100"}})"),
              HasSubstr("it came at 100 ms instead of 101 ms"));
}

TEST_F(ScenarioTest, FailsOnDifferentValueAndNamesIt) {
  EXPECT_THAT(report(std::string(ping) + R"(, {"out": {"type": "pong", "sentAt": 6, "helperAt": "@100"}})"),
              HasSubstr("sentAt is 5"));
}

TEST_F(ScenarioTest, FailsOnDifferentOrder) {
  EXPECT_NE(report(std::string(ping) + R"(, {"host": {"type": "x"}},
            {"out": {"type": "helper.error", "message": "Unsupported command type: x", "at": "@100"}},
            {"out": {"type": "pong", "sentAt": 5, "helperAt": "@100"}})"),
            "");
}

TEST_F(ScenarioTest, FailsOnDifferentEnd) {
  EXPECT_THAT(report("", R"("exit": 0, )"), HasSubstr("still runs"));
  EXPECT_THAT(report(R"({"at": 100, "host": {"type": "shutdown"}})"), HasSubstr("exits with status 0"));
  EXPECT_THAT(report(R"({"at": 100, "host": {"type": "shutdown"}})", R"("exit": 1, )"),
              HasSubstr("exits with status 0"));
}

TEST_F(ScenarioTest, FailsOnDifferentRecognizerInput) {
  EXPECT_THAT(report("", R"("probes": [], )"), HasSubstr("1 were made instead of 0"));
  EXPECT_THAT(report("", R"("probes": [{"frames": 1}], )"), HasSubstr("frames is 1920"));
  EXPECT_THAT(report("", R"("requests": [{}], )"), HasSubstr("0 were made instead of 1"));
}

TEST_F(ScenarioTest, FailsOnMissingErrorLine) {
  EXPECT_THAT(report(R"({"at": 100, "errorLine": "x"})"), HasSubstr("standard error, line 1: it never came"));
}

TEST_F(ScenarioTest, FailsWhenAnsweringTaskIsMissing) {
  EXPECT_THAT(report(R"({"at": 100, "recognizer": {"partial": "x"}})"), HasSubstr("there is no such task"));
}

TEST_F(ScenarioTest, ReportsFailingSeed) {
  EXPECT_THAT(report(ping, R"("seed": [4, 5], )"), HasSubstr("with seed 4"));
}

TEST_F(ScenarioTest, RejectsUnknownInput) {
  EXPECT_THAT(fileError("{"), HasSubstr("parse error"));
  EXPECT_THAT(fileError("[]"), HasSubstr("must be an object"));
  EXPECT_THAT(fileError(R"({"conversation": []})"), HasSubstr("has no title"));
  EXPECT_THAT(fileError(R"({"title": "t"})"), HasSubstr("has no conversation"));
  EXPECT_THAT(fileError(R"({"title": "t", "title": "u", "conversation": []})"), HasSubstr("repeated"));
  EXPECT_THAT(fileError(R"({"title": "t", "conversation": [], "colour": 1})"),
              HasSubstr("unknown key \"colour\""));
  const auto step = [this](const std::string& members) {
    return fileError(R"({"title": "t", "conversation": [{"at": 5, "line": "x"}, {)" + members + "}]}");
  };
  EXPECT_EQ(step(R"("line": "")"), "");
  EXPECT_THAT(step(R"("at": 6)"), HasSubstr("conversation[1]: must hold exactly one of"));
  EXPECT_THAT(step(R"("line": "", "text": "")"), HasSubstr("must hold exactly one of"));
  EXPECT_THAT(step(R"("at": 4, "line": "")"), HasSubstr("earlier than the step before"));
  EXPECT_THAT(step(R"("at": 6, "after": 1, "line": "")"), HasSubstr("both at and after"));
  EXPECT_THAT(step(R"("out": "nothing")"), HasSubstr("there is no template"));
  EXPECT_THAT(step(R"("bytes": "abc")"), HasSubstr("hexadecimal"));
  EXPECT_THAT(step(R"("audio": {"rms": 2})"), HasSubstr("rms must be"));
  EXPECT_THAT(step(R"("audio": {"loud": 1})"), HasSubstr("unknown key \"loud\""));
  EXPECT_THAT(step(R"("audio": "loud")"), HasSubstr("must be an object"));
  EXPECT_THAT(step(R"("audio": {"samples": [40000]})"), HasSubstr("samples"));
  EXPECT_THAT(step(R"("recognizer": {})"), HasSubstr("has none of"));
  EXPECT_THAT(step(R"("recognizer": {"partial": "a", "final": "b"})"), HasSubstr("both partial and final"));
  EXPECT_THAT(step(R"("recognizer": {"error": "bang"})"), HasSubstr("unknown value \"bang\""));
  EXPECT_THAT(step(R"("platform": {"dictation": "maybe"})"), HasSubstr("unknown value \"maybe\""));
  EXPECT_THAT(step(R"("closeInput": false)"), HasSubstr("must be true"));
}

}  // namespace

}  // namespace palaver
