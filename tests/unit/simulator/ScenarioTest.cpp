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
  // Plays a scenario of exactly these steps with a program. Returns the report, or "".
  std::string reportOf(const std::string& steps, const ScenarioProgram& program) {
    write(R"({"title": "t", "conversation": [)" + steps + "]}");
    return play(readScenario(path_), program).value_or("");
  }
  std::string reportOfFile(const std::string& file) {
    write(file);
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

TEST_F(ScenarioTest, FinalsAloneMayBeExpected) {
  const std::string speech = R"("platform": {"locales": {"en-US": "installed"}}, "conversation": [
      {"at": 100, "host": {"type": "session.start", "sessionId": "a", "locale": "en-US"}},
      {"at": 200, "audio": {"firstSample": 7}},
      {"at": 300, "recognizer": {"partial": "go", "heard": 7}},
      {"at": 400, "recognizer": {"final": "go forward", "heard": 7}}]})";
  const auto with = [&](const std::string& finals) {
    return reportOfFile(R"({"title": "t", "finals": )" + finals + ", " + speech);
  };
  EXPECT_EQ(with(R"({"remote": ["go forward"]})"), "");
  EXPECT_EQ(with(R"({"remote": ["go forward"], "self": []})"), "");
  EXPECT_EQ(with(R"({"remote": ["go"], "self": ["x"]})"),
            "  final 1 of remote:\n    - go\n    + go forward\n  final 1 of self:\n    - x\n");
  EXPECT_EQ(with("{}"), "  final 1 of remote:\n    + go forward\n");
  EXPECT_THAT(
      fileError(R"({"title": "t", "finals": {}, "conversation": [{"at": 0, "out": {"type": "pong"}}]})"),
      HasSubstr("has both finals and expected events"));
  EXPECT_THAT(fileError(R"({"title": "t", "finals": {"remote": "x"}, "conversation": []})"),
              HasSubstr("must be a list"));
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

TEST_F(ScenarioTest, FailsOnStepsAfterTheExit) {
  EXPECT_THAT(report(R"({"at": 100, "host": {"type": "shutdown"}}, {"at": 200, "host": {"type": "ping"}},
                       {"at": 300, "closeInput": true})",
                     R"("exit": 0, )"),
              HasSubstr("exited before 2 step(s) of the host or the machine; the first is at 200 ms"));
}

TEST_F(ScenarioTest, WholeNumberMustBeWrittenAsOne) {
  const auto pong = [](const std::string& sentAt) {
    return R"(, {"out": {"type": "pong", "sentAt": )" + sentAt + R"(, "helperAt": "@100"}})";
  };
  const std::string large = R"({"at": 100, "host": {"type": "ping", "sentAt": 1e30}})";
  const std::string whole = "1000000000000000000000000000000";
  EXPECT_EQ(report(large + pong("1e30")), "");
  EXPECT_EQ(report(std::string(ping) + pong("5.0")), "") << "a pattern with a fraction takes both";
  EXPECT_EQ(report(std::string(ping) + pong("5")), "");
  const std::string small = R"({"at": 100, "host": {"type": "ping", "sentAt": 5.5}})";
  EXPECT_THAT(report(small + pong("5")), HasSubstr("sentAt is 5.5, which is not written as a whole number"));
}

TEST_F(ScenarioTest, OrderOfStandardOutputAndErrorIsCompared) {
  const auto errorFirst = [](SimulatedPlatform&, Platform& platform) {
    platform.standardError.write("error\n");
    platform.standardOutput.write("output\n");
  };
  const std::string error = R"({"errorLine": "error"})";
  const std::string output = R"({"outLine": "output"})";
  EXPECT_EQ(reportOf(error + ", " + output, errorFirst), "");
  EXPECT_THAT(reportOf(output + ", " + error, errorFirst),
              HasSubstr("came in this order instead of the other one:\n    standard error: error\n"));
}

TEST_F(ScenarioTest, GroupMatchesLinesInAnyOrder) {
  const std::string twoPings =
      R"({"at": 100, "host": [{"type": "ping", "sentAt": 5}, {"type": "ping", "sentAt": 6}]})";
  const auto pong = [](int sentAt) {
    return R"({"type": "pong", "sentAt": )" + std::to_string(sentAt) + R"(, "helperAt": "@100"})";
  };
  const auto group = [&](int first, int second) {
    return twoPings + R"(, {"outInAnyOrder": [)" + pong(first) + ", " + pong(second) + "]}";
  };
  EXPECT_EQ(report(group(5, 6)), "");
  EXPECT_EQ(report(group(6, 5)), "");
  EXPECT_THAT(report(group(5, 5)), HasSubstr("line 2: the 2 lines from here on are not the expected ones"));
  EXPECT_THAT(report(group(6, 5) + ", " + R"({"out": )" + pong(7) + "}"), HasSubstr("line 4: it never came"));
}

TEST_F(ScenarioTest, ReportsShowTimesSinceTheStart) {
  const auto text =
      report(std::string(ping) + R"(, {"out": {"type": "pong", "sentAt": 5, "helperAt": "@150"}})");
  EXPECT_THAT(text, AllOf(HasSubstr("helperAt is @100 instead of @150"), HasSubstr("\"helperAt\":@100")));
  EXPECT_THAT(text, testing::Not(HasSubstr("1700000000")));
}

TEST_F(ScenarioTest, ReportsWhichRequestsWereMade) {
  EXPECT_THAT(report("", R"("probes": [{"locale": "x"}, {}], )"),
              AllOf(HasSubstr("- {\"locale\":\"x\"}"), HasSubstr("+ {"), HasSubstr("\"locale\":\"ja-JP\"")));
}

TEST_F(ScenarioTest, ProbesAreAnsweredInTurn) {
  const std::string steps = R"({"at": 100, "host": {"type": "session.start", "sessionId": "a"}},
    {"at": 40000, "host": {"type": "session.start", "sessionId": "b"}})";
  // The first probe, at the start, finds Dictation off. The second one, after half a minute, does not.
  const auto text =
      report(steps, R"("platform": {"probe": [{"error": "dictationDisabled"}, {"error": "noSpeech"}]},
                                     "probes": [{"madeAt": 0}, {"madeAt": 40000}], )");
  EXPECT_THAT(text, AllOf(HasSubstr("available is false instead of true"),
                          HasSubstr("40020  {\"available\":true"), testing::Not(HasSubstr("probes:"))));
}

TEST_F(ScenarioTest, ProbeMayBeAnsweredByStep) {
  const std::string disabled = R"({"at": 5, "recognizer": {"probe": 1, "error": "dictationDisabled"}})";
  const std::string file =
      R"({"title": "t", "templates": "status.json", "platform": {"probe": "never"},
    "conversation": [)" +
      disabled +
      R"(, {"at": 20, "out": {"type": "helper.status", "status": "$s", "available": false,
      "implementation": "$i", "authorization": "$a", "modelStatus": "$m", "dictation": "disabled", "message": "$t",
      "protocolVersion": 1}}]})";
  EXPECT_EQ(reportOfFile(file), "");
  EXPECT_THAT(report(R"({"at": 100, "recognizer": {"probe": 2, "error": "noSpeech"}})"),
              HasSubstr("there is no such task"));
}

TEST_F(ScenarioTest, TaskMayBeChosenByWhatItHeard) {
  const std::string steps = R"({"at": 100, "host": {"type": "session.start", "sessionId": "a"}},
    {"out": {"type": "session.ready", "sessionId": "a", "available": true,
             "implementation": "sf-speech-recognizer", "locale": "ja-JP"}},
    {"at": 1000, "audio": {"firstSample": 501}}, {"at": 1000, "audio": {"source": "self", "firstSample": 601}},
    {"at": 1100, "recognizer": {"heard": )";
  EXPECT_THAT(report(steps + R"(501, "partial": "x"}})"), HasSubstr("\"source\":\"remote\""));
  EXPECT_THAT(report(steps + R"(601, "partial": "x"}})"), HasSubstr("\"source\":\"self\""));
  EXPECT_THAT(report(steps + R"(701, "partial": "x"}})"), HasSubstr("there is no such task"));
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
  EXPECT_THAT(step(R"("recognizer": {"error": {"code": 1110.9}})"),
              HasSubstr("code: must be a whole number"));
  EXPECT_THAT(step(R"("recognizer": {"partial": "a", "task": 0})"), HasSubstr("must be a number from 1"));
  EXPECT_THAT(step(R"("recognizer": {"partial": "a", "task": 1, "heard": 5})"),
              HasSubstr("more than one of"));
  EXPECT_THAT(step(R"("outInAnyOrder": [{}])"), HasSubstr("from 2 to 8 events"));
  EXPECT_THAT(step(R"("platform": {"probe": []})"), HasSubstr("at least one answer"));
  EXPECT_THAT(step(R"("platform": {"dictation": "maybe"})"), HasSubstr("unknown value \"maybe\""));
  EXPECT_THAT(step(R"("closeInput": false)"), HasSubstr("must be true"));
}

TEST_F(ScenarioTest, RejectsNumbersThatFillTheMemory) {
  const auto audio = [this](const std::string& first, const std::string& second) {
    return fileError(R"({"title": "t", "conversation": [{"audio": {)" + first + R"(}}, {"audio": {)" +
                     second + "}}]}");
  };
  EXPECT_EQ(audio(R"("frames": 16000, "times": 30)", R"("frames": 0, "times": 100)"), "");
  EXPECT_THAT(audio("", R"("frames": 1e300)"), HasSubstr("longer than an hour"));
  EXPECT_THAT(audio("", R"("ms": 3600001)"), HasSubstr("longer than an hour"));
  EXPECT_THAT(audio("", R"("frames": 1000, "times": 57600)"), HasSubstr("longer than an hour"));
  EXPECT_THAT(audio("", R"("frames": 0, "times": 9007199254740992)"),
              HasSubstr("more than 100000 audio commands"));
  EXPECT_THAT(audio(R"("frames": 0, "times": 50000)", R"("frames": 0, "times": 50001)"),
              HasSubstr("more than 100000 audio commands"));

  const auto phrases = [this](const std::string& count) {
    return fileError(R"({"title": "t", "files": {"v": {"phrases": )" + count + R"(}}, "conversation": []})");
  };
  EXPECT_EQ(phrases("100000"), "");
  EXPECT_THAT(phrases("100001"), HasSubstr("must be from 0 to 100000"));
  EXPECT_THAT(phrases("9007199254740992"), HasSubstr("must be from 0 to 100000"));
  EXPECT_THAT(phrases("-1"), HasSubstr("must be from 0 to 100000"));
}

}  // namespace

}  // namespace palaver
