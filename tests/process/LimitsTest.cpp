// Tests that a helper without memory or threads reports it and never dies silently.
#include <gmock/gmock.h>

#include <string>

#include "tests/support/HelperProcess.h"

namespace palaver {
namespace {

// Sanitizers map terabytes of address space, so their programs cannot be limited.
class LimitsTest : public testing::Test {
 protected:
  void SetUp() override {
#ifdef PALAVER_SANITIZED
    GTEST_SKIP() << "sanitizers need unlimited address space";
#endif
  }

  // Runs the helper with that much address space, KiB.
  static HelperProcess::Options limited(int kibibytes) {
    return {.arguments = {"-c", "ulimit -v " + std::to_string(kibibytes) + "; exec \"$0\"", PALAVER_HELPER},
            .argument0 = "sh",
            .program = "/bin/sh"};
  }
  static std::string ping() {
    return R"({"type":"ping"})"
           "\n";
  }
};

TEST_F(LimitsTest, HelperWithoutReaderThreadReportsAndExits1) {
  HelperProcess helper(limited(10'000));  // less than a thread's stack
  EXPECT_EQ(helper.readEvent()["type"], "helper.status");
  const auto error = helper.readEvent();
  EXPECT_EQ(error["type"], "helper.error");
  EXPECT_EQ(error["message"], "The helper has to end: Resource temporarily unavailable");
  EXPECT_EQ(helper.readRest(), "");
  EXPECT_EQ(helper.wait(), exited(1));
}

TEST_F(LimitsTest, LineThatDoesNotFitIsReportedAndNextIsHandled) {
  HelperProcess helper(limited(64'000));
  EXPECT_EQ(helper.readEvent()["type"], "helper.status");
  ASSERT_TRUE(helper.send(R"({"type":"ping","a":")" + std::string(60'000'000, 'A') + "\"}\n" + ping()));
  EXPECT_EQ(helper.readEvent()["message"], "Invalid JSON command: the line does not fit into memory");
  EXPECT_EQ(helper.readEvent()["type"], "pong");
  helper.closeInput();
  EXPECT_EQ(helper.wait(), exited(0));
}

TEST_F(LimitsTest, VocabularyThatDoesNotFitIsReportedAndNextIsHandled) {
  HelperProcess helper(limited(96'000));
  EXPECT_EQ(helper.readEvent()["type"], "helper.status");
  std::string line = R"({"type":"session.start","sessionId":"s","vocabulary":[)";
  for (int i = 0; i < 5'000'000; ++i) line += "\"a\",";
  ASSERT_TRUE(helper.send(line + "\"b\"]}\n" + ping()));
  EXPECT_EQ(helper.readEvent()["message"], "Invalid JSON command: the line does not fit into memory");
  EXPECT_EQ(helper.readEvent()["type"], "pong");
}

// The answer repeats the type. Either the command fails, or only its answer cannot be encoded.
TEST_F(LimitsTest, CommandThatDoesNotFitIsReportedAndNextIsHandled) {
  HelperProcess helper(limited(100'000));
  EXPECT_EQ(helper.readEvent()["type"], "helper.status");
  ASSERT_TRUE(helper.send(R"({"type":")" + std::string(20'000'000, 'y') + "\"}\n" + ping()));
  auto event = helper.readEvent();
  const bool hasError = event["type"] == "helper.error";
  if (hasError) {
    EXPECT_EQ(event["message"], "The command does not fit into memory");
    event = helper.readEvent();
  }
  EXPECT_EQ(event["type"], "pong");
  helper.closeInput();
  EXPECT_EQ(helper.wait(), exited(0));
  EXPECT_EQ(helper.errorText(), hasError ? "" : "Failed to encode helper event: std::bad_alloc\n");
}

}  // namespace
}  // namespace palaver
