// Tests that the helper ends when its host asks for it and does not read its output.
#include <gmock/gmock.h>

#include <string>

#include "tests/support/HelperProcess.h"

namespace palaver {
namespace {

using Options = HelperProcess::Options;

constexpr const char* shutdownLine = R"({"type":"shutdown"})"
                                     "\n";

std::string repeated(const std::string& line, int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += line;
  return all;
}

// A helper whose output the test leaves unread. Its pipe fills after a few events.
class EndTest : public testing::Test {
 protected:
  // The output holds only whole lines before the point where the host stopped to accept bytes.
  void expectEndWithWholeFirstLines() {
    EXPECT_EQ(helper.wait(), exited(0));
    EXPECT_EQ(helper.readEvent()["type"], "helper.status");
    EXPECT_EQ(helper.errorText(), "");
  }

  HelperProcess helper{Options{.output = {.capacity = 4096}}};
  const std::string pings = repeated(R"({"type":"ping"})"
                                     "\n",
                                     2000);
  const std::string badLines = repeated("bad\n", 2000);
};

TEST_F(EndTest, EndOfInputEndsHelperWithUnreadOutput) {
  ASSERT_TRUE(helper.send(pings));
  helper.closeInput();
  expectEndWithWholeFirstLines();
}

TEST_F(EndTest, ShutdownEndsHelperWithUnreadOutput) {
  ASSERT_TRUE(helper.send(pings + shutdownLine));
  expectEndWithWholeFirstLines();
}

TEST_F(EndTest, ShutdownAfterUnreadErrorsEndsHelper) {
  ASSERT_TRUE(helper.send(badLines + shutdownLine));
  expectEndWithWholeFirstLines();
}

TEST_F(EndTest, ShutdownBeforeUnreadErrorsEndsHelper) {
  ASSERT_TRUE(helper.send(pings + shutdownLine + "bad\n"));
  expectEndWithWholeFirstLines();
}

TEST_F(EndTest, EndOfInputAfterUnreadErrorsEndsHelper) {
  ASSERT_TRUE(helper.send(badLines));
  helper.closeInput();
  expectEndWithWholeFirstLines();
}

TEST_F(EndTest, HostThatReadsSlowlyGetsEverything) {
  ASSERT_TRUE(helper.send(pings));
  helper.closeInput();
  std::string text;
  for (std::string piece = helper.readSome(100); !piece.empty(); piece = helper.readSome(100)) text += piece;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2001);
  EXPECT_EQ(helper.wait(), exited(0));
}

TEST(EndOrderTest, PingBeforeBadLinesIsAnsweredBeforeTheirErrors) {
  HelperProcess helper(Options{.output = {.capacity = 4096}});
  ASSERT_EQ(helper.readEvent()["type"], "helper.status");
  ASSERT_TRUE(helper.send(R"({"type":"ping"})"
                          "\n" +
                          repeated("bad\n", 60000)));
  int errors = 0;
  for (auto event = helper.readEvent(); event["type"] == "helper.error"; event = helper.readEvent()) ++errors;
  EXPECT_LT(errors, 1000);
}

TEST(EndOrderTest, ErrorsAndAnswersKeepOrderOfLines) {
  HelperProcess helper(Options{.output = {.capacity = 4096}});
  ASSERT_EQ(helper.readEvent()["type"], "helper.status");
  std::string input;
  constexpr int lines = 2000;
  for (int i = 0; i < lines; ++i) input += R"({"type":"ping","sentAt":)" + std::to_string(i) + "}\nbad\n";
  ASSERT_TRUE(helper.send(input));
  helper.closeInput();
  int pongs = 0, errors = 0;
  for (int i = 0; i < 2 * lines; ++i) {
    const auto event = helper.readEvent();
    if (event["type"] == "pong") {
      EXPECT_EQ(event["sentAt"], pongs++);
    } else {
      ++errors;
    }
  }
  EXPECT_EQ(pongs, lines);
  EXPECT_EQ(errors, lines);
  EXPECT_EQ(helper.wait(), exited(0));
}

}  // namespace
}  // namespace palaver
