// Tests that checks against another process can fail.
#include "simulator/stepped/Converse.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "simulator/stepped/ThreadActivity.h"

namespace palaver {

namespace {

using testing::AllOf;
using testing::HasSubstr;
using namespace std::chrono_literals;

constexpr std::chrono::milliseconds unlimited = 60s;

class ConverseTest : public testing::Test {
 protected:
  ConverseTest() {
    std::signal(SIGPIPE, SIG_IGN);
    std::filesystem::create_directories(directory_);
  }
  ~ConverseTest() override { std::filesystem::remove_all(directory_); }

  ConversationOutcome outcome(const std::string& steps, const std::string& members = "",
                              const std::vector<std::string>& command = {PALAVER_SIMULATOR, "stepped"},
                              std::chrono::milliseconds bound = unlimited) {
    const auto path = directory_ / "scenario.json";
    std::ofstream(path) << R"({"title": "t", )" << members
                        << R"("templates": "status.json", "conversation": [)"
                        << R"({"at": 20, "out": "status"})" << (steps.empty() ? "" : ", ") << steps << "]}";
    std::ofstream(directory_ / "status.json") << R"({"status": {
      "type": "helper.status", "status": "ready", "available": true, "implementation": "sf-speech-recognizer",
      "authorization": "authorized", "modelStatus": "installed", "dictation": "enabled",
      "message": "On-device Japanese speech recognition is ready.", "protocolVersion": 1}})";
    return converse(readScenario(path), command, bound);
  }
  // Plays against the helper in stepped time. Returns the report of differences, or "".
  std::string report(const std::string& steps, const std::string& members = "") {
    return outcome(steps, members).report.value_or("");
  }
  // Plays against a shell script, whose descriptor 3 is the control channel.
  std::string reportOn(const std::string& script, std::chrono::milliseconds bound = unlimited) {
    return outcome("", "", {"/bin/sh", "-c", script}, bound).report.value_or("");
  }

 private:
  const std::filesystem::path directory_ = std::filesystem::path(testing::TempDir()) /
                                           testing::UnitTest::GetInstance()->current_test_info()->name();
};

constexpr const char* ping = R"({"at": 100, "host": {"type": "ping", "sentAt": 5}})";

TEST_F(ConverseTest, PassesWhenEverythingMatches) {
  EXPECT_EQ(report(""), "");
  EXPECT_EQ(report(std::string(ping) + R"(, {"out": {"type": "pong", "sentAt": 5, "helperAt": "@100"}})"),
            "");
}

TEST_F(ConverseTest, FailsOnUnexpectedEvent) {
  EXPECT_THAT(report(ping), AllOf(HasSubstr("line 2: it was not expected"), HasSubstr("pong")));
}

TEST_F(ConverseTest, FailsOnMissingEvent) {
  EXPECT_THAT(report(R"({"at": 100, "out": {"type": "pong"}})"), HasSubstr("line 2: it never came"));
}

TEST_F(ConverseTest, FailsOnDifferentTime) {
  EXPECT_THAT(report(std::string(ping) +
                     R"(, {"at": 101, "out": {"type": "pong", "sentAt": 5, "helperAt": "@100"}})"),
              HasSubstr("it came at 100 ms instead of 101 ms"));
}

TEST_F(ConverseTest, FailsOnDifferentEnd) {
  EXPECT_THAT(report("", R"("exit": 0, )"), HasSubstr("still runs"));
  EXPECT_THAT(report(R"({"at": 100, "host": {"type": "shutdown"}})"), HasSubstr("exits with status 0"));
  EXPECT_EQ(report(R"({"at": 100, "closeInput": true})", R"("exit": 0, )"), "");
}

TEST_F(ConverseTest, FailsOnDifferentServiceInput) {
  EXPECT_THAT(report("", R"("probes": [], )"), HasSubstr("probes: 1 were made instead of 0"));
  EXPECT_THAT(report("", R"("probes": [{"frames": 1}], )"), HasSubstr("frames is 1920"));
  EXPECT_THAT(report("", R"("requests": [{}], )"), HasSubstr("0 were made instead of 1"));
  EXPECT_THAT(report("", R"("analyzers": [{}], )"), HasSubstr("0 were made instead of 1"));
  EXPECT_THAT(report(R"({"at": 100, "host": {"type": "shutdown"}})", R"("exit": 0, "probes": [], )"),
              HasSubstr("probes: 1 were made instead of 0"));
}

TEST_F(ConverseTest, FailsWhenStepCannotBePerformed) {
  EXPECT_THAT(report(R"({"at": 100, "recognizer": {"partial": "x"}})"), HasSubstr("there is no such task"));
}

TEST_F(ConverseTest, SkipsUnansweredPrompt) {
  const auto found =
      outcome("", R"("arguments": ["--authorize"], "platform": {"authorizationAnswer": "never"}, )");
  EXPECT_TRUE(found.skipped);
  EXPECT_FALSE(found.report);
}

TEST_F(ConverseTest, SkipsMachineRefusedByProgram) {
  const auto found = outcome("", "", {"/bin/sh", "-c", R"(read x <&3; echo '{"refused": "too loud"}' >&3)"});
  EXPECT_EQ(found.skipped, "too loud");
}

TEST_F(ConverseTest, FailsOnDifferentExitStatus) {
  EXPECT_THAT(reportOn("exit 3"), AllOf(HasSubstr("exits with status 3"), HasSubstr("it never came")));
  EXPECT_THAT(reportOn("kill -9 $$"), HasSubstr("ended by signal 9"));
}

TEST_F(ConverseTest, FailsOnHangingProgram) {
  EXPECT_THAT(reportOn("read x", 100ms), HasSubstr("does not answer"));
  EXPECT_THAT(reportOn("read x <&3; echo {} >&3; while :; do :; done", 100ms),
              HasSubstr("does not come to rest"));
}

TEST_F(ConverseTest, ReportsLastOutputOfFailingProgram) {
  EXPECT_THAT(reportOn("read x <&3; echo {} >&3; read x <&3; exec 3>&-; read x; echo farewell >&2; exit 1"),
              AllOf(HasSubstr("closed the control channel"), HasSubstr("its last words:\nfarewell")));
}

TEST_F(ConverseTest, FailsOnMisuseOfControlChannel) {
  EXPECT_THAT(reportOn("read x <&3; echo hello >&3; read x"), HasSubstr("no JSON object"));
  EXPECT_THAT(reportOn("exec 3>&-; read x"), HasSubstr("closed the control channel"));
}

TEST(ThreadActivity, CallingThreadIsAwake) {
  EXPECT_FALSE(ThreadActivity(::getpid()).isAsleep());
}

TEST(ThreadActivity, MissingProcessIsNotAsleep) {
  EXPECT_FALSE(ThreadActivity(-1).isAsleep());
}

}  // namespace

}  // namespace palaver
