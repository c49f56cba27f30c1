// Tests conversations with the command loop: answers, their order, and how the process ends.
#include <gmock/gmock.h>

#include <chrono>

#include "tests/support/HelperProcess.h"

namespace palaver {
namespace {

using ::testing::ElementsAre;

std::vector<std::string> keysOf(const nlohmann::json& event) {
  std::vector<std::string> keys;
  for (auto member = event.begin(); member != event.end(); ++member) keys.push_back(member.key());
  return keys;
}

double now() {
  return std::chrono::duration<double, std::milli>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

class CommandLoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    status_ = helper_.readEvent();
    ASSERT_TRUE(status_.is_object());
  }
  nlohmann::json ask(std::string_view line) {
    EXPECT_TRUE(helper_.sendLine(line));
    return helper_.readEvent();
  }
  void expectCleanEnd() {
    helper_.closeInput();
    EXPECT_EQ(helper_.readRest(), "");
    EXPECT_EQ(helper_.wait(), exited(0));
    EXPECT_EQ(helper_.errorText(), "");
  }

  HelperProcess helper_;
  nlohmann::json status_;
};

TEST_F(CommandLoopTest, StatusIsFirstLine) {
  EXPECT_THAT(keysOf(status_), ElementsAre("authorization", "available", "dictation", "implementation",
                                           "message", "modelStatus", "protocolVersion", "status", "type"));
  EXPECT_EQ(status_["type"], "helper.status");
  EXPECT_EQ(status_["implementation"], "sf-speech-recognizer");
  EXPECT_EQ(status_["protocolVersion"], 1);
  expectCleanEnd();
}

TEST_F(CommandLoopTest, PongHasBothTimes) {
  const double before = now();
  const auto pong = ask(R"({"type":"ping","sentAt":1234.5,"sessionId":"s"})");
  const double after = now();
  EXPECT_THAT(keysOf(pong), ElementsAre("helperAt", "sentAt", "type"));
  EXPECT_EQ(pong["type"], "pong");
  EXPECT_EQ(pong["sentAt"], 1234.5);
  EXPECT_GE(pong["helperAt"], before - 1);
  EXPECT_LE(pong["helperAt"], after + 1);
  EXPECT_EQ(ask(R"({"type":"ping"})")["sentAt"], 0);
  EXPECT_EQ(ask(R"({"type":"ping","sentAt":1700000000123.456})")["sentAt"], 1700000000123.456);
  expectCleanEnd();
}

TEST_F(CommandLoopTest, SessionStartsAndStops) {
  const auto ready = ask(R"({"type":"session.start","sessionId":"s"})");
  EXPECT_THAT(keysOf(ready), ElementsAre("available", "implementation", "locale", "sessionId", "type"));
  EXPECT_EQ(ready["type"], "session.ready");
  EXPECT_EQ(ready["locale"], "ja-JP");
  if (!ready["available"].get<bool>()) {
    EXPECT_EQ(helper_.readEvent()["type"], "helper.status");
  }
  const auto suppressed =
      ask(R"({"type":"source.suppress","sessionId":"s","source":"remote","suppressed":true})");
  EXPECT_THAT(keysOf(suppressed), ElementsAre("at", "sessionId", "source", "suppressed", "type"));
  const auto stopped = ask(R"({"type":"session.stop","sessionId":"s"})");
  EXPECT_THAT(keysOf(stopped), ElementsAre("at", "sessionId", "type"));
  EXPECT_EQ(stopped["type"], "session.stopped");
  expectCleanEnd();
}

TEST_F(CommandLoopTest, AudioWithoutSessionIsReportedWithIdAndSource) {
  const auto error = ask(
      R"({"type":"audio","sessionId":"s/1","source":"remote","sequence":1,"capturedAt":1,"pcmBase64":"AAA="})");
  EXPECT_EQ(error["message"], "Audio received before session.start");
  EXPECT_EQ(error["sessionId"], "s/1");
  EXPECT_EQ(error["source"], "remote");
  expectCleanEnd();
}

TEST_F(CommandLoopTest, ShutdownExits0WhileInputIsOpen) {
  EXPECT_TRUE(helper_.sendLine(R"({"type":"shutdown"})"));
  EXPECT_EQ(helper_.readRest(), "");
  EXPECT_EQ(helper_.wait(), exited(0));
  EXPECT_EQ(helper_.errorText(), "");
}

TEST_F(CommandLoopTest, LinesAfterShutdownAreIgnored) {
  EXPECT_TRUE(helper_.send(R"({"type":"ping","sentAt":1})"
                           "\n"
                           R"({"type":"shutdown"})"
                           "\n"
                           R"({"type":"ping","sentAt":2})"
                           "\n"
                           R"({"type":"session.start","sessionId":"s"})"
                           "\n"));
  const auto events = helper_.readEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0]["sentAt"], 1);
  EXPECT_EQ(helper_.wait(), exited(0));
}

TEST_F(CommandLoopTest, EndOfInputHandlesBurstFirst) {
#ifdef PALAVER_SANITIZED
  constexpr int count = 5000;
#else
  constexpr int count = 100000;
#endif
  std::string burst;
  for (int i = 0; i < count; ++i) burst += R"({"type":"ping","sentAt":)" + std::to_string(i) + "}\n";
  ASSERT_TRUE(helper_.send(burst));
  helper_.closeInput();
  for (int i = 0; i < count; ++i) ASSERT_EQ(helper_.readEvent()["sentAt"], i);
  EXPECT_EQ(helper_.readRest(), "");
  EXPECT_EQ(helper_.wait(), exited(0));
  EXPECT_EQ(helper_.errorText(), "");
}

TEST(CommandLoopStartTest, StatusPrecedesAnswersToEarlyCommands) {
  for (int round = 0; round < 20; ++round) {
    HelperProcess helper;
    ASSERT_TRUE(helper.send("bad\n{\"type\":\"ping\"}\n"));
    helper.closeInput();
    const auto events = helper.readEvents();
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[0]["type"], "helper.status");
    EXPECT_EQ(events[1]["type"], "helper.error");
    EXPECT_EQ(events[2]["type"], "pong");
    EXPECT_EQ(helper.wait(), exited(0));
  }
}

TEST(CommandLoopStartTest, EmptyInputExits0) {
  HelperProcess helper;
  helper.closeInput();
  EXPECT_EQ(helper.readEvents().size(), 1U);
  EXPECT_EQ(helper.wait(), exited(0));
  EXPECT_EQ(helper.errorText(), "");
}

TEST(CommandLoopStartTest, SignalsHaveDefaultEffect) {
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGKILL}) {
    HelperProcess helper;
    ASSERT_EQ(helper.readEvent()["type"], "helper.status");
    helper.signal(number);
    EXPECT_EQ(helper.wait(), killedBy(number));
    EXPECT_EQ(helper.errorText(), "");
  }
}

TEST(CommandLoopStartTest, ExternalSIGPIPEIsIgnored) {
  HelperProcess helper;
  ASSERT_EQ(helper.readEvent()["type"], "helper.status");
  helper.signal(SIGPIPE);
  EXPECT_TRUE(helper.sendLine(R"({"type":"ping"})"));
  EXPECT_EQ(helper.readEvent()["type"], "pong");
  helper.closeInput();
  EXPECT_EQ(helper.wait(), exited(0));
}

TEST(CommandLoopStartTest, StopAndContinueLoseNothing) {
  HelperProcess helper;
  ASSERT_EQ(helper.readEvent()["type"], "helper.status");
  helper.signal(SIGSTOP);
  EXPECT_TRUE(helper.sendLine(R"({"type":"ping","sentAt":1})"));
  helper.signal(SIGCONT);
  EXPECT_EQ(helper.readEvent()["sentAt"], 1);
  helper.closeInput();
  EXPECT_EQ(helper.wait(), exited(0));
}

TEST(CommandLoopStartTest, InputAfterShutdownIsDropped) {
  HelperProcess helper;
  std::string input = R"({"type":"shutdown"})"
                      "\n";
  for (int i = 0; i < 5000; ++i) input += "bad\n";
  helper.send(input);  // fails once the helper has exited
  EXPECT_EQ(helper.readEvent()["type"], "helper.status");
  EXPECT_EQ(helper.readRest(), "");
  EXPECT_EQ(helper.wait(), exited(0));
}

}  // namespace
}  // namespace palaver
