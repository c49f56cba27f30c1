// Tests the standard streams that hosts provide: sockets, non-blocking, slow, disconnected, closed.
#include <gmock/gmock.h>

#include <string>

#include "tests/support/HelperProcess.h"

namespace palaver {
namespace {

using Stream = HelperProcess::Stream;
using Kind = Stream::Kind;
using Options = HelperProcess::Options;

constexpr int burst = 8000;  // its answers exceed the buffers between host and helper

std::string pings(int count) {
  std::string all;
  for (int i = 0; i < count; ++i) all += R"({"type":"ping","sentAt":)" + std::to_string(i) + "}\n";
  return all;
}

// Sends a burst of pings and ends the input. Expects all answers, complete and in order.
void expectBurstAnswered(HelperProcess& helper) {
  ASSERT_TRUE(helper.send(pings(burst)));
  helper.closeInput();
  ASSERT_EQ(helper.readEvent()["type"], "helper.status");
  for (int i = 0; i < burst; ++i) ASSERT_EQ(helper.readEvent()["sentAt"], i);
  EXPECT_EQ(helper.readRest(), "");
  EXPECT_EQ(helper.wait(), exited(0));
  EXPECT_EQ(helper.errorText(), "");
}

TEST(StreamsTest, EveryKindOfStreamWorks) {
  for (const auto kind : {Kind::pipe, Kind::socket})
    for (const bool nonBlockingInput : {false, true})
      for (const bool nonBlockingOutput : {false, true}) {
        SCOPED_TRACE(testing::Message()
                     << (kind == Kind::pipe ? "pipes" : "sockets") << nonBlockingInput << nonBlockingOutput);
        HelperProcess helper(Options{.input = {.kind = kind, .nonBlocking = nonBlockingInput},
                                     .output = {.kind = kind, .nonBlocking = nonBlockingOutput},
                                     .error = {.kind = kind}});
        expectBurstAnswered(helper);
      }
}

TEST(StreamsTest, ByteWiseReaderGetsEverything) {
  HelperProcess helper(Options{.input = {.kind = Kind::socket, .nonBlocking = true},
                               .output = {.kind = Kind::socket, .nonBlocking = true}});
  constexpr int count = 500;
  ASSERT_TRUE(helper.send(pings(count)));
  helper.closeInput();
  std::string text;
  for (std::string byte = helper.readSome(1); !byte.empty(); byte = helper.readSome(1)) text += byte;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), count + 1);
  EXPECT_EQ(helper.wait(), exited(0));
}

TEST(StreamsTest, LargeLineIsWholeOnNonBlockingOutput) {
  HelperProcess helper(Options{.output = {.kind = Kind::socket, .nonBlocking = true}});
  const std::string type(std::size_t{4} << 20, 'x');
  ASSERT_TRUE(helper.sendLine("{\"type\":\"" + type + "\"}"));
  helper.closeInput();
  const auto events = helper.readEvents();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_TRUE(events[1]["message"] == "Unsupported command type: " + type);
  EXPECT_EQ(helper.wait(), exited(0));
}

TEST(StreamsTest, InputIsReadWhileHostDoesNotRead) {
  for (const bool nonBlocking : {false, true}) {
    HelperProcess helper(Options{.output = {.kind = Kind::socket, .nonBlocking = nonBlocking}});
    // Exceeds all buffers between the two, in both directions, while the host does not read.
    ASSERT_TRUE(helper.send(pings(burst)));
    const std::string audio =
        R"({"type":"audio","sessionId":"none","source":"self","sequence":1,"capturedAt":1,)"
        R"("pcmBase64":")" +
        std::string(4400, 'A') + "\"}\n";
    constexpr int chunks = 2000;  // 9 MB
    std::string all;
    for (int i = 0; i < chunks; ++i) all += audio;
    ASSERT_TRUE(helper.send(all));
    helper.closeInput();
    EXPECT_EQ(helper.readEvents().size(), static_cast<std::size_t>(1 + burst + chunks));
    EXPECT_EQ(helper.wait(), exited(0));
  }
}

TEST(StreamsTest, ClosedReaderDoesNotKillHelper) {
  for (const auto kind : {Kind::pipe, Kind::socket})
    for (const bool nonBlocking : {false, true}) {
      HelperProcess helper(Options{.output = {.kind = kind, .nonBlocking = nonBlocking}});
      ASSERT_EQ(helper.readEvent()["type"], "helper.status");
      helper.closeOutput();
      EXPECT_TRUE(helper.send(pings(burst) + "bad\n"));
      helper.closeInput();
      EXPECT_EQ(helper.wait(), exited(0));
      EXPECT_EQ(helper.errorText(), "");
    }
}

TEST(StreamsTest, ReaderClosingDuringWriteUnblocksHelper) {
  for (const bool nonBlocking : {false, true}) {
    HelperProcess helper(Options{.output = {.kind = Kind::socket, .nonBlocking = nonBlocking}});
    ASSERT_TRUE(helper.send(pings(burst)));
    helper.closeInput();
    helper.closeOutput();
    EXPECT_EQ(helper.wait(), exited(0));
  }
}

TEST(StreamsTest, FullDiskDoesNotStopHelper) {
  HelperProcess helper(Options{.output = {.kind = Kind::file, .path = "/dev/full"}});
  EXPECT_TRUE(helper.send(pings(100)));
  helper.closeInput();
  EXPECT_EQ(helper.wait(), exited(0));
  EXPECT_EQ(helper.errorText(), "");
}

TEST(StreamsTest, UnreadableInputCountsAsEnded) {
  for (const auto* const path : {"/dev/null", "/"}) {
    HelperProcess helper(Options{.input = {.kind = Kind::file, .path = path}});
    EXPECT_EQ(helper.readEvents().size(), 1U);
    EXPECT_EQ(helper.wait(), exited(0));
    EXPECT_EQ(helper.errorText(), "");
  }
}

TEST(StreamsTest, ClosedInputCountsAsEnded) {
  HelperProcess helper(Options{.input = {.kind = Kind::closed}});
  const auto events = helper.readEvents();
  ASSERT_EQ(events.size(), 1U);
  EXPECT_EQ(events[0]["type"], "helper.status");
  EXPECT_EQ(helper.wait(), exited(0));
}

TEST(StreamsTest, ClosedOutputLosesOnlyEvents) {
  HelperProcess helper(Options{.output = {.kind = Kind::closed}});
  EXPECT_TRUE(helper.send(pings(100)));
  helper.closeInput();
  EXPECT_EQ(helper.wait(), exited(0));
  EXPECT_EQ(helper.errorText(), "");
}

TEST(StreamsTest, ClosedErrorStreamChangesNothing) {
  HelperProcess helper(Options{.error = {.kind = Kind::closed}});
  expectBurstAnswered(helper);
}

TEST(StreamsTest, EveryCombinationOfClosedStreamsExits0) {
  for (int closed = 0; closed < 8; ++closed) {
    const auto stream = [closed](int bit) {
      return Stream{.kind = closed & bit ? Kind::closed : Kind::pipe};
    };
    HelperProcess helper(Options{.input = stream(1), .output = stream(2), .error = stream(4)});
    helper.closeInput();
    EXPECT_EQ(helper.readEvents().size(), closed & 2 ? 0U : 1U) << closed;
    EXPECT_EQ(helper.wait(), exited(0)) << closed;
    EXPECT_EQ(helper.errorText(), "") << closed;
  }
}

TEST(StreamsTest, OneShotModesWorkOnAnyStreams) {
  for (int closed = 0; closed < 8; ++closed) {
    const auto stream = [closed](int bit) {
      return Stream{.kind = closed & bit ? Kind::closed : Kind::pipe};
    };
    HelperProcess helper(
        Options{.arguments = {"--health"}, .input = stream(1), .output = stream(2), .error = stream(4)});
    EXPECT_EQ(helper.readEvents().size(), closed & 2 ? 0U : 1U) << closed;
    EXPECT_EQ(helper.wait(), exited(0)) << closed;
  }
}

}  // namespace
}  // namespace palaver
