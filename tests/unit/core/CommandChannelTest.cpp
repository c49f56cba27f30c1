#include "core/CommandChannel.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>

#include "core/CommandHandler.h"
#include "core/JSONLineWriter.h"
#include "tests/support/AllocationCount.h"
#include "tests/unit/core/Fakes.h"

namespace palaver {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Refuses blocks while it exists: allocations of so many bytes.
struct NoBlocks {
  explicit NoBlocks(std::size_t leastSize = largeAllocation,
                    std::size_t mostSize = std::numeric_limits<std::size_t>::max()) {
    refuseLargeAllocations(true, leastSize, mostSize);
  }
  ~NoBlocks() { refuseLargeAllocations(false); }
  NoBlocks(const NoBlocks&) = delete;
  NoBlocks& operator=(const NoBlocks&) = delete;
};

// Feeds a channel and its handler with reads of any size.
struct Conversation {
  explicit Conversation(std::size_t longestLine = CommandChannel::usualLongestLine)
      : channel(fake.mainQueue, writer, handler, longestLine) {}

  FakePlatform fake;
  JSONLineWriter writer{fake.clock, fake.standardOutput, fake.standardError};
  RecordingBackend backend;
  CommandHandler handler{fake.platform, writer, backend};
  CommandChannel channel;

  // Delivers the bytes in one read, or in several when the channel's buffer is smaller.
  void receive(std::string_view bytes) {
    while (!bytes.empty()) {
      const auto room = channel.prepare();
      ASSERT_FALSE(room.empty());
      const auto count = std::min(room.size(), bytes.size());
      std::memcpy(room.data(), bytes.data(), count);
      channel.received(count);
      bytes.remove_prefix(count);
    }
  }
  void receiveInReadsOf(std::size_t size, std::string_view bytes) {
    for (; !bytes.empty(); bytes.remove_prefix(std::min(size, bytes.size()))) receive(bytes.substr(0, size));
  }
  // Prepares a read while no memory is left for a block. Returns the exit status if the helper ends.
  std::optional<int> prepareWithoutMemory();
  // Ends the input and handles all commands. Returns the exit status.
  int end() {
    channel.prepare();
    channel.ended();
    try {
      fake.mainQueue.runAll();
    } catch (const Exit& exit) {
      return exit.status;
    }
    return -1;
  }
  std::vector<std::string> messages() const {
    std::vector<std::string> all;
    std::string text = fake.standardOutput.text();
    for (std::size_t at = 0; at < text.size(); at = text.find('\n', at) + 1) {
      const auto event = Event::parse(text.substr(at, text.find('\n', at) - at));
      all.push_back(event.contains("message") ? event["message"] : event["type"]);
    }
    return all;
  }
};

std::optional<int> Conversation::prepareWithoutMemory() {
  const NoBlocks refused;
  try {
    channel.prepare();
  } catch (const Exit& exit) {
    return exit.status;
  }
  return std::nullopt;
}

std::string stop(std::string_view id) {
  return std::string(R"({"type":"session.stop","sessionId":")").append(id) + "\"}";
}

TEST(CommandChannelTest, HelperEndsWithErrorWhenFirstBlockDoesNotFit) {
  Conversation host;
  EXPECT_EQ(host.prepareWithoutMemory(), 1);
  EXPECT_THAT(host.messages(), ElementsAre(::testing::StartsWith("The helper has to end: ")));
}

// Sizes of blocks and the least room of a read, bytes.
constexpr std::size_t usualBlock = std::size_t{256} << 10;
constexpr std::size_t burstBlock = std::size_t{1} << 20;
constexpr std::size_t leastRoom = std::size_t{64} << 10;

TEST(CommandChannelTest, LineThatDoesNotFitIsReportedOnceAndNextIsHandled) {
  Conversation host;
  const std::string longLine(2 * usualBlock, 'x');
  host.receive(stop("a") + "\n");
  {
    const NoBlocks refused;
    host.receiveInReadsOf(4096, longLine);
    EXPECT_THAT(host.messages(), ElementsAre("Invalid JSON command: the line does not fit into memory"));
    host.receive("x\n" + stop("b") + "\n");
  }
  host.fake.mainQueue.runAll();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')", "stopSession('b')"));
  EXPECT_EQ(host.messages().size(), 1U);
}

TEST(CommandChannelTest, ReadsGoOnInRestOfBlockWhenNextDoesNotFit) {
  Conversation host;
  const std::string line = stop("a") + "\n";
  host.receiveInReadsOf(leastRoom, std::string(usualBlock - leastRoom, '\n'));
  host.receive(std::string(leastRoom - 2 * line.size(), '\n'));
  const NoBlocks refused;
  EXPECT_EQ(host.channel.prepare().size(), 2 * line.size());
  host.receive(line);
  EXPECT_EQ(host.channel.prepare().size(), line.size());
  host.fake.mainQueue.runAll();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')"));
  EXPECT_THAT(host.messages(), IsEmpty());
}

TEST(CommandChannelTest, HelperEndsWithErrorWhenBlockIsFullAndNextDoesNotFit) {
  Conversation host;
  host.receiveInReadsOf(leastRoom, std::string(usualBlock - leastRoom, '\n'));
  ASSERT_EQ(host.channel.prepare().size(), leastRoom);
  host.receive(std::string(leastRoom, '\n'));
  EXPECT_EQ(host.prepareWithoutMemory(), 1);
  EXPECT_THAT(host.messages(), ElementsAre(::testing::StartsWith("The helper has to end: ")));
}

TEST(CommandChannelTest, OneByteOfLineCrossesEndOfBlock) {
  Conversation host;
  const std::string line = stop("a") + "\n";
  host.receiveInReadsOf(leastRoom, std::string(usualBlock - leastRoom, '\n'));
  ASSERT_EQ(host.channel.prepare().size(), leastRoom);
  host.receive(std::string(leastRoom - 1, '\n') + line.substr(0, 1));
  host.receive(line.substr(1));
  host.fake.mainQueue.runAll();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')"));
}

TEST(CommandChannelTest, BlockOfLongLineIsKeptForHalfBlockOfNextLine) {
  const std::string longLine(2 * usualBlock, ' ');
  for (const std::size_t length : {usualBlock / 2 - 1, usualBlock / 2}) {
    Conversation host;
    host.receiveInReadsOf(4096, longLine);
    host.receive("\n" + std::string(length, ' '));
    const auto room = host.channel.prepare().size();
    EXPECT_EQ(room == burstBlock - length, length < usualBlock / 2) << room;
  }
}

TEST(CommandChannelTest, CommandsWaitForMainThread) {
  Conversation host;
  host.receive(stop("a") + "\n");
  EXPECT_THAT(host.backend.calls, IsEmpty());
  host.fake.mainQueue.runAll();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')"));
}

TEST(CommandChannelTest, OneReadIsOneJob) {
  Conversation host;
  host.receive(stop("a") + "\n" + stop("b") + "\n" + stop("c") + "\n");
  EXPECT_EQ(host.fake.mainQueue.size(), 1U);
  host.receive(stop("d") + "\n");
  EXPECT_EQ(host.fake.mainQueue.size(), 2U);
  host.receive(stop("e"));
  host.receive("\n\n \nbroken\n");
  EXPECT_EQ(host.fake.mainQueue.size(), 3U);
  host.fake.mainQueue.runAll();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')", "stopSession('b')", "stopSession('c')",
                                              "stopSession('d')", "stopSession('e')"));
}

TEST(CommandChannelTest, LinesAfterShutdownAreDropped) {
  Conversation host;
  host.receive(stop("a") + "\n{\"type\":\"shutdown\"}\nbad\n" + stop("b") + "\nbad");
  host.receive(" line\n" + stop("c") + "\nbad\n");
  EXPECT_EQ(host.end(), 0);
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')", "stopAll"));
  EXPECT_THAT(host.messages(), IsEmpty());
  EXPECT_EQ(host.fake.mainQueue.size(), 1U) << "one job for the commands, one for the end of input";
}

TEST(CommandChannelTest, OverlongLineAfterShutdownIsDroppedForAnyReadSize) {
  constexpr std::size_t limit = 100;
  const std::string input = "{\"type\":\"shutdown\"}\n" + std::string(2 * limit, 'x');
  for (const std::string end : {"", "\n", "\nbad\n"})
    for (const std::size_t read : {std::size_t{1}, limit, 10 * limit}) {
      Conversation host(limit);
      host.receiveInReadsOf(read, input + end);
      EXPECT_EQ(host.end(), 0);
      EXPECT_THAT(host.messages(), IsEmpty());
      EXPECT_THAT(host.backend.calls, ElementsAre("stopAll"));
    }
}

TEST(CommandChannelTest, LineSplitAtAnyByteIsOneLine) {
  const std::string input = stop("あ") + "\r\n" + stop("b") + "\n\n" + stop("c\\u0041") + "\n";
  for (std::size_t at = 0; at <= input.size(); ++at) {
    Conversation host;
    host.receive(input.substr(0, at));
    host.receive(input.substr(at));
    EXPECT_EQ(host.end(), 0);
    EXPECT_THAT(host.backend.calls,
                ElementsAre("stopSession('あ')", "stopSession('b')", "stopSession('cA')", "stopAll"))
        << at;
    EXPECT_THAT(host.messages(), IsEmpty());
  }
}

TEST(CommandChannelTest, ReadSizeDoesNotMatter) {
  std::string input;
  for (int i = 0; i < 40; ++i)
    input += stop(std::to_string(i)) + (i % 3 == 0 ? "\r\n" : "\n") + (i % 7 == 0 ? "{]\n" : "");
  Conversation singleRead;
  singleRead.receive(input);
  EXPECT_EQ(singleRead.end(), 0);
  ASSERT_EQ(singleRead.backend.calls.size(), 41U);
  ASSERT_EQ(singleRead.messages().size(), 6U);
  for (std::size_t size = 1; size < 100; ++size) {
    Conversation host;
    host.receiveInReadsOf(size, input);
    EXPECT_EQ(host.end(), 0);
    EXPECT_EQ(host.backend.calls, singleRead.backend.calls) << size;
    EXPECT_EQ(host.fake.standardOutput.text(), singleRead.fake.standardOutput.text()) << size;
  }
}

TEST(CommandChannelTest, BlankLineProducesNoOutput) {
  Conversation host;
  host.receive(
      "\n\r\n \n\t \r\n\v\f\n\xC2\x85\n\xC2\xA0\n\xE3\x80\x80\xE3\x80\x80\n\xE2\x80\xA8\xE2\x80\xA9\n");
  EXPECT_EQ(host.fake.mainQueue.size(), 0U);
  EXPECT_EQ(host.end(), 0);
  EXPECT_THAT(host.backend.calls, ElementsAre("stopAll"));
  EXPECT_EQ(host.fake.standardOutput.text(), "");
}

TEST(CommandChannelTest, UnicodeWhiteSpaceIsTrimmedOnlyForBlankLineCheck) {
  Conversation host;
  host.receive("\xC2\xA0" + stop("a") + "\n" + stop("b") + "\xE3\x80\x80\n \t" + stop("c") + " \r\n");
  EXPECT_EQ(host.end(), 0);
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('c')", "stopAll"));
  EXPECT_THAT(host.messages(), ElementsAre("Invalid JSON command: a value is malformed at byte 0",
                                           "Invalid JSON command: something follows the object at byte 39"));
}

TEST(CommandChannelTest, UndecodableLineIsReportedAndNextIsHandled) {
  Conversation host;
  host.receive("{}\n" + stop("a") + "\n{\"type\":\"audio\",\"source\":\"mic\",\"sessionId\":\"s\"}\n");
  EXPECT_EQ(
      host.fake.standardOutput.text(),
      R"({"at":1700000000123.5,"message":"Invalid JSON command: type is missing","type":"helper.error"})"
      "\n"
      R"({"at":1700000000123.5,"message":"Invalid JSON command: source must be \"remote\" or \"self\"",)"
      R"("type":"helper.error"})"
      "\n");
  EXPECT_EQ(host.end(), 0);
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')", "stopAll"));
}

TEST(CommandChannelTest, LastLineMayLackLineFeed) {
  Conversation host;
  host.receive(stop("a") + "\n" + stop("b"));
  EXPECT_EQ(host.end(), 0);
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')", "stopSession('b')", "stopAll"));

  Conversation truncated;
  truncated.receive(R"({"type":"session.st)");
  EXPECT_EQ(truncated.end(), 0);
  EXPECT_THAT(truncated.messages(), ElementsAre("Invalid JSON command: the line ends too early at byte 19"));
  EXPECT_THAT(truncated.backend.calls, ElementsAre("stopAll"));
}

TEST(CommandChannelTest, EmptyInputEndsImmediately) {
  Conversation host;
  EXPECT_EQ(host.end(), 0);
  EXPECT_THAT(host.backend.calls, ElementsAre("stopAll"));
}

TEST(CommandChannelTest, OnlyLineFeedEndsLine) {
  Conversation host;
  host.receive(stop("a\xE2\x80\xA8") + "\r" + stop("b") + "\n");
  EXPECT_EQ(host.end(), 0);
  EXPECT_THAT(host.backend.calls, ElementsAre("stopAll"));
  EXPECT_EQ(host.messages().size(), 1U);
}

TEST(CommandChannelTest, LinesAcrossBlockBoundariesAreWhole) {
  // Lines of many lengths, so that they begin, end and cross at every position of a block.
  for (const std::size_t reads :
       {std::size_t{1} << 20, std::size_t{65536}, std::size_t{4096}, std::size_t{1777}}) {
    Conversation host;
    std::string input;
    std::vector<std::string> expected;
    for (std::size_t i = 0; input.size() < 1500000; ++i) {
      const std::string id = std::to_string(i) + std::string(i * 131 % 5000, 'x');
      input += stop(id) + "\n";
      expected.push_back("stopSession('" + id + "')");
    }
    host.receiveInReadsOf(reads, input);
    EXPECT_EQ(host.end(), 0);
    expected.emplace_back("stopAll");
    EXPECT_TRUE(host.backend.calls == expected) << reads;
    EXPECT_EQ(host.fake.standardOutput.text(), "");
  }
}

TEST(CommandChannelTest, LinesOfAboutOneBlockAreWhole) {
  for (const std::size_t length :
       {131071UL, 131072UL, 131073UL, 196608UL, 262143UL, 262144UL, 262145UL, 400000UL}) {
    Conversation host;
    const std::string id(length, 'y');
    host.receiveInReadsOf(65536, stop(id) + "\n" + stop("after") + "\n" + stop(id) + "\n");
    EXPECT_EQ(host.end(), 0);
    ASSERT_EQ(host.backend.calls.size(), 4U) << length;
    EXPECT_TRUE(host.backend.calls[0] == "stopSession('" + id + "')") << length;
    EXPECT_EQ(host.backend.calls[1], "stopSession('after')");
    EXPECT_TRUE(host.backend.calls[2] == host.backend.calls[0]) << length;
  }
}

TEST(CommandChannelTest, HugeLineIsWholeAndItsMemoryReleased) {
  constexpr std::size_t size = std::size_t{64} << 20;
  Conversation host;
  host.receive(stop("before") + "\n");
  {
    const std::string line = stop(std::string(size, 'z')) + "\n";
    host.receiveInReadsOf(65536, line);
  }
  host.fake.mainQueue.runAll();
  ASSERT_EQ(host.backend.calls.size(), 2U);
  EXPECT_EQ(host.backend.calls[1].size(), size + std::strlen("stopSession('')"));
  host.backend.calls.clear();
  host.backend.calls.shrink_to_fit();

  host.receive(stop("after") + "\n");
  host.fake.mainQueue.runAll();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('after')"));
  EXPECT_LT(allocatedBytes(), std::size_t{8} << 20) << "the block of the huge line is still held";
}

TEST(CommandChannelTest, OverlongLineIsReportedOnceAndNextIsHandled) {
  constexpr std::size_t limit = 300'000;
  Conversation host(limit);
  host.receiveInReadsOf(7'000, stop("a") + "\n" + std::string(3 * limit, 'x') + "\n" + stop("b") + "\n");
  EXPECT_EQ(host.end(), 0);
  EXPECT_THAT(host.messages(), ElementsAre("Invalid JSON command: the line is longer than 300000 bytes"));
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')", "stopSession('b')", "stopAll"));
}

TEST(CommandChannelTest, LineLimitIsExactForAnyReadSize) {
  const std::string line = stop(std::string(400'000, 'a'));
  for (const std::size_t read : {std::size_t{7'000}, std::size_t{1'000'000}}) {
    Conversation exact(line.size());
    exact.receiveInReadsOf(read, line + "\n");
    exact.end();
    EXPECT_THAT(exact.messages(), IsEmpty());
    EXPECT_THAT(exact.backend.calls, ::testing::SizeIs(2));

    Conversation oneLess(line.size() - 1);
    oneLess.receiveInReadsOf(read, line + "\n");
    oneLess.end();
    EXPECT_THAT(oneLess.messages(), ::testing::SizeIs(1));
    EXPECT_THAT(oneLess.backend.calls, ElementsAre("stopAll"));
  }
}

TEST(CommandChannelTest, EndlessLineTakesNoMemoryBeyondLimit) {
  constexpr std::size_t limit = 1'000'000;
  Conversation host(limit);
  const std::string piece(100'000, 'x');
  const std::size_t before = allocatedBytes();
  std::size_t most = 0;
  for (int i = 0; i < 200; ++i) {
    host.receive(piece);
    most = std::max(most, allocatedBytes() - before);
  }
  EXPECT_LT(most, 4 * limit);
  EXPECT_EQ(host.end(), 0);
  EXPECT_THAT(host.messages(), ::testing::SizeIs(1));
}

TEST(CommandChannelTest, SteadyStreamAllocatesNoBlocks) {
  Conversation host;
  const std::string line = stop(std::string(4000, 'a')) + "\n";
  const auto stream = [&](int lines) {
    for (int i = 0; i < lines; ++i) {
      host.receive(line);
      host.fake.mainQueue.runAll();
      host.backend.calls.clear();
    }
  };
  stream(1000);
  const auto before = largeAllocations();
  stream(10000);  // 40 MB
  EXPECT_EQ(largeAllocations(), before);
}

TEST(CommandChannelTest, MemoryOfStallIsReleased) {
  Conversation host;
  const auto before = allocatedBytes();
  const std::string line = stop(std::string(4000, 'a')) + "\n";
  constexpr int lines = 8192;  // 32 MiB
  for (int i = 0; i < lines; ++i) host.receive(line);
  EXPECT_EQ(host.fake.mainQueue.size(), static_cast<std::size_t>(lines));
  // Queued input costs about its own size, not one block per read.
  EXPECT_LT(allocatedBytes() - before, std::size_t{lines} * 4096 * 2);
  while (host.fake.mainQueue.size() > 0) {
    host.fake.mainQueue.runOne();
    host.backend.calls.clear();
  }
  EXPECT_LT(allocatedBytes() - before, std::size_t{4} << 20);
}

// Lines of 4 KB, `bytes` in all.
std::string linesOf(std::size_t bytes) {
  const std::string line = stop(std::string(4000, 'a')) + "\n";
  std::string lines;
  while (lines.size() < bytes) lines += line;
  return lines;
}

TEST(CommandChannelTest, LongReadMakesNextBlockLarger) {
  Conversation host;
  EXPECT_EQ(host.channel.prepare().size(), usualBlock);
  host.receive(linesOf(usualBlock - 4096));
  EXPECT_EQ(host.channel.prepare().size(), burstBlock);
}

TEST(CommandChannelTest, ReadOf128KiBIsBurst) {
  constexpr std::size_t burst = std::size_t{128} << 10;
  for (const std::size_t read : {burst - 1, burst}) {
    Conversation host;
    host.receive(std::string(read, '\n'));
    host.receiveInReadsOf(4096, std::string(std::size_t{17} * 4096, '\n'));
    EXPECT_EQ(host.channel.prepare().size(), read == burst ? burstBlock : usualBlock) << read;
  }
}

TEST(CommandChannelTest, BlockIsReplacedWhenLessThan64KiBOfRoomAreLeft) {
  Conversation host;
  host.receiveInReadsOf(4096, std::string(usualBlock - leastRoom, '\n'));
  EXPECT_EQ(host.channel.prepare().size(), leastRoom);
  host.receive("\n");
  EXPECT_EQ(host.channel.prepare().size(), usualBlock);
}

TEST(CommandChannelTest, LineOfHalfBlockMovesToBlockOfTwiceItsLength) {
  for (const std::size_t length : {usualBlock / 2 - 1, usualBlock / 2}) {
    Conversation host;
    host.receiveInReadsOf(4096, std::string(usualBlock - leastRoom - length, '\n'));
    host.receiveInReadsOf(4096, std::string(length, ' '));
    EXPECT_EQ(host.channel.prepare().size(), leastRoom);
    host.receive(" ");
    const std::size_t unfinished = length + 1;
    EXPECT_EQ(host.channel.prepare().size(),
              unfinished < usualBlock / 2 ? usualBlock - unfinished : unfinished + leastRoom)
        << length;
  }
}

TEST(CommandChannelTest, FourBlocksAreKeptForReuse) {
  // A command and blank lines. The next block follows when less than 64 KiB of room are left.
  std::string read = stop("a");
  read.resize(4096, '\n');
  constexpr std::size_t readsOfBlock = (usualBlock - leastRoom) / 4096 + 1;
  // Returns the blocks allocated for a backlog of so many blocks after an equal one.
  const auto allocationsOf = [&](std::size_t blocks) {
    Conversation host;
    std::size_t before = 0;
    for (int round = 0; round < 2; ++round) {
      before = largeAllocations();
      for (std::size_t i = 0; i < blocks * readsOfBlock; ++i) host.receive(read);
      host.fake.mainQueue.runAll();
    }
    return largeAllocations() - before;
  };
  EXPECT_EQ(allocationsOf(5), 0U) << "four kept and the one in use";
  EXPECT_EQ(allocationsOf(6), 1U);
}

TEST(CommandChannelTest, BurstAllocatesNoBlocksOnceItGoesOn) {
  Conversation host;
  const std::string lines = linesOf(burstBlock);
  std::size_t before = 0;
  for (int round = 0; round < 20; ++round) {
    if (round == 4) before = largeAllocations();
    host.receive(lines);
    host.fake.mainQueue.runAll();
    host.backend.calls.clear();
  }
  EXPECT_EQ(largeAllocations(), before);
}

TEST(CommandChannelTest, BlocksAreUsualAgainAfterBurst) {
  Conversation host;
  host.receive(linesOf(usualBlock - 4096));
  ASSERT_EQ(host.channel.prepare().size(), burstBlock);
  host.fake.mainQueue.runAll();
  host.receiveInReadsOf(4096, linesOf(2 * burstBlock));
  EXPECT_LE(host.channel.prepare().size(), usualBlock);
}

TEST(CommandChannelTest, MemoryOfBurstIsReleasedAfterIt) {
  Conversation host;
  const auto before = allocatedBytes();
  const auto send = [&host](std::size_t size, std::size_t bytes) {
    const std::string lines = linesOf(bytes);
    for (std::string_view rest = lines; !rest.empty(); rest.remove_prefix(std::min(size, rest.size()))) {
      host.receive(rest.substr(0, size));
      host.fake.mainQueue.runAll();
      host.backend.calls.clear();
    }
  };
  send(burstBlock, 16 * burstBlock);
  send(4096, 2 * burstBlock);
  EXPECT_LT(allocatedBytes() - before, 3 * usualBlock);
}

TEST(CommandChannelTest, CommandThatDoesNotFitIsReportedAndLaterOnesAreHandled) {
  Conversation host;
  host.receive(stop("a") + "\n");
  const std::string line = stop("b") + "\n";
  auto room = host.channel.prepare();
  std::memcpy(room.data(), line.data(), line.size());
  {
    const NoBlocks refused(sizeof(HelperCommand), 511);  // an event takes 512
    host.channel.received(line.size());
  }
  host.receive(stop("c") + "\n");
  host.fake.mainQueue.runAll();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')", "stopSession('c')"));
  EXPECT_THAT(host.messages(), ElementsAre("Invalid JSON command: the line does not fit into memory"));
}

TEST(CommandChannelTest, HelperEndsWhenEvenReportDoesNotFit) {
  Conversation host;
  const std::string line = stop("a") + "\n";
  auto room = host.channel.prepare();
  std::memcpy(room.data(), line.data(), line.size());
  std::optional<int> status;
  {
    const NoBlocks refused(1);
    try {
      host.channel.received(line.size());
    } catch (const Exit& exit) {
      status = exit.status;
    }
  }
  EXPECT_EQ(status, 1);
}

TEST(CommandChannelTest, BurstGoesOnInUsualBlocksWhenLargerOnesDoNotFit) {
  Conversation host;
  const std::string lines = linesOf(usualBlock - 4096);
  host.receive(lines);
  {
    const NoBlocks refused(usualBlock * 2);
    host.receive(lines);
  }
  host.fake.mainQueue.runAll();
  EXPECT_EQ(host.backend.calls.size(), lines.size() / stop(std::string(4001, 'a')).size() * 2);
  EXPECT_THAT(host.messages(), IsEmpty());
}

TEST(CommandChannelTest, LineFeedBetweenTokensEndsLine) {
  Conversation host;
  host.receive("{\"type\":\n\"session.stop\",\"sessionId\":\"a\"}\n" + stop("b") + "\r\n" + stop("c") +
               " \t\n");
  host.fake.mainQueue.runAll();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('b')", "stopSession('c')"));
  EXPECT_EQ(host.messages().size(), 2U);
}

TEST(CommandChannelTest, SecondCommandOnLineIsRejectedWithFirst) {
  Conversation host;
  host.receive(stop("a") + stop("b") + "\n" + stop("c") + "\n");
  host.fake.mainQueue.runAll();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('c')"));
  EXPECT_THAT(host.messages(), ElementsAre(::testing::HasSubstr("something follows the object")));
}

TEST(CommandChannelTest, AnyOtherByteBehindCommandIsRejected) {
  for (int byte = 0; byte < 256; ++byte) {
    if (std::strchr(" \t\r\n", byte) && byte != 0) continue;
    Conversation host;
    host.receive(stop("a") + static_cast<char>(byte) + "\n" + stop("b") + "\n");
    host.fake.mainQueue.runAll();
    EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('b')")) << byte;
    EXPECT_EQ(host.messages().size(), 1U) << byte;
  }
}

TEST(CommandChannelTest, LimitHoldsForCommandThatIsReadWhole) {
  const std::string line = stop("a");
  for (const std::size_t limit : {line.size() - 1, line.size()}) {
    Conversation host(limit);
    host.receive(line + "\n");
    EXPECT_EQ(host.end(), 0);
    EXPECT_EQ(host.messages().size(), limit < line.size() ? 1U : 0U);
    EXPECT_EQ(host.backend.calls.size(), limit < line.size() ? 1U : 2U) << "with the end of input";
  }
}

TEST(CommandChannelTest, LineOfLimitMayEndWithNextRead) {
  const std::string line = stop("a");
  Conversation host(line.size());
  host.receive(line);
  host.receive("\n");
  EXPECT_EQ(host.end(), 0);
  EXPECT_THAT(host.messages(), IsEmpty());
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')", "stopAll"));
}

TEST(CommandChannelTest, CommandWhosePhrasesDoNotFitIsReportedOnceAndNextIsHandled) {
  Conversation host;
  std::string line = R"({"type":"session.start","sessionId":"a","vocabulary":[""])";
  for (int i = 0; i < 20'000; ++i) line.insert(line.size() - 1, ",\"\"");
  line += "}\n" + stop("b") + "\n";
  ASSERT_LT(line.size(), usualBlock);
  host.channel.prepare();
  {
    const NoBlocks refused;
    host.receive(line);
  }
  host.fake.mainQueue.runAll();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('b')"));
  EXPECT_THAT(host.messages(), ElementsAre("Invalid JSON command: the line does not fit into memory"));
}

TEST(CommandChannelTest, ManyCommandsOfOneReadNeedNoLargeList) {
  Conversation host;
  const std::string line = stop("a") + "\n";
  std::string lines;
  for (int i = 0; i < 2000; ++i) lines += line;
  host.channel.prepare();
  {
    const NoBlocks refused;  // nor other large memory
    host.receive(lines);
  }
  host.fake.mainQueue.runAll();
  EXPECT_EQ(host.backend.calls.size(), 2000U);
  EXPECT_THAT(host.messages(), IsEmpty());
}

// Of a host that does not read, until isRead is set.
class UnreadOutput final : public OutputStream {
 public:
  void write(std::string_view bytes) override {
    text += bytes;
    limitsAtWrite = limits;
  }
  bool isWritable() const override { return isRead; }
  void limitStalls(double) override { ++limits; }
  std::string text;
  bool isRead = false;
  int limits = 0;
  int limitsAtWrite = 0;
};

struct UnreadConversation {
  FakePlatform fake;
  UnreadOutput output;
  JSONLineWriter writer{fake.clock, output, fake.standardError};
  RecordingBackend backend;
  CommandHandler handler{fake.platform, writer, backend};
  CommandChannel channel{fake.mainQueue, writer, handler};

  void receive(std::string_view bytes) {
    std::memcpy(channel.prepare().data(), bytes.data(), bytes.size());
    channel.received(bytes.size());
  }
  // The messages of all events written so far, without what they have in common.
  std::vector<std::string> messages() const {
    std::vector<std::string> all;
    std::istringstream lines(output.text);
    for (std::string line; std::getline(lines, line);)
      all.push_back(
          Event::parse(line)["message"].get<std::string>().substr(std::strlen("Invalid JSON command: ")));
    return all;
  }
};

TEST(CommandChannelTest, QueuedErrorsAreWrittenInOrderEachAsOftenAsItWasMade) {
  UnreadConversation host;
  host.receive("[]\nx\nx\nx\n[]\n[]\n");
  EXPECT_THAT(host.messages(), IsEmpty());
  host.fake.mainQueue.runAll();
  const std::string object = "expected an object";
  const std::string value = "a value is malformed at byte 0";
  EXPECT_THAT(host.messages(), ElementsAre(object, value, value, value, object, object));
}

TEST(CommandChannelTest, ErrorIsQueuedBehindQueuedOnesAndWrittenAtOnceBehindNone) {
  UnreadConversation host;
  host.receive("[]\n");
  host.output.isRead = true;
  host.receive("x\n");
  EXPECT_THAT(host.messages(), IsEmpty());
  host.fake.mainQueue.runAll();
  EXPECT_THAT(host.messages(), ElementsAre("expected an object", "a value is malformed at byte 0"));
  host.receive("[]\n");
  EXPECT_EQ(host.messages().size(), 3U);
  EXPECT_EQ(host.fake.mainQueue.size(), 0U);
}

TEST(CommandChannelTest, ErrorForUnreadOutputComesBetweenCommandsAroundItsLine) {
  UnreadConversation host;
  host.receive(stop("a") + "\nx\n" + stop("b") + "\n");
  host.fake.mainQueue.runOne();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')"));
  EXPECT_THAT(host.messages(), IsEmpty());
  host.fake.mainQueue.runOne();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')"));
  EXPECT_EQ(host.messages().size(), 1U);
  host.fake.mainQueue.runOne();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')", "stopSession('b')"));
}

TEST(CommandChannelTest, ErrorForUnreadOutputIsQueuedWithItsRead) {
  UnreadConversation host;
  host.receive("bad\n");
  EXPECT_EQ(host.fake.mainQueue.size(), 1U);
}

TEST(CommandChannelTest, ErrorForUnreadOutputPrecedesLaterCommands) {
  UnreadConversation host;
  host.receive("bad\n" + stop("a") + "\n");
  ASSERT_EQ(host.fake.mainQueue.size(), 2U);
  host.fake.mainQueue.runOne();
  EXPECT_THAT(host.backend.calls, IsEmpty());
  host.fake.mainQueue.runOne();
  EXPECT_THAT(host.backend.calls, ElementsAre("stopSession('a')"));
}

TEST(CommandChannelTest, ErrorOfLastLineForUnreadOutputIsQueuedBeforeEnd) {
  UnreadConversation host;
  host.receive("bad");
  EXPECT_EQ(host.fake.mainQueue.size(), 0U);
  host.channel.ended();
  EXPECT_EQ(host.fake.mainQueue.size(), 2U);
}

TEST(CommandChannelTest, ErrorOfLineThatDoesNotFitIsQueuedForUnreadOutput) {
  UnreadConversation host;
  const std::string part(leastRoom, 'x');
  for (std::size_t read = 0; read < usualBlock; read += part.size()) host.receive(part);
  const NoBlocks refused;
  host.channel.prepare();
  EXPECT_EQ(host.fake.mainQueue.size(), 1U);
}

TEST(CommandChannelTest, StallsOfOutputAreLimitedFromShutdownOrEndOn) {
  UnreadConversation host;
  host.receive(stop("a") + "\n");
  EXPECT_EQ(host.output.limits, 0);
  host.receive("{\"type\":\"shutdown\"}\n");
  EXPECT_EQ(host.output.limits, 1);
  UnreadConversation ended;
  ended.channel.prepare();
  ended.channel.ended();
  EXPECT_EQ(ended.output.limits, 1);
}

TEST(CommandChannelTest, StallsOfOutputAreLimitedBeforeReportOfFailureAndBeforeEnd) {
  UnreadConversation host;
  const NoBlocks refused;
  EXPECT_THROW(host.channel.prepare(), Exit);
  EXPECT_GE(host.output.limitsAtWrite, 1);
  EXPECT_GT(host.output.limits, host.output.limitsAtWrite);
}

TEST(CommandChannelTest, CommandsStayValidAfterLaterReads) {
  // Later input must not overwrite the bytes that earlier commands refer to.
  Conversation host;
  std::vector<std::string> expected;
  for (int i = 0; i < 3000; ++i) {
    const std::string id = std::to_string(i) + std::string(static_cast<std::size_t>(i % 400), 'v');
    host.receive(stop(id) + "\n");
    expected.push_back("stopSession('" + id + "')");
  }
  EXPECT_EQ(host.end(), 0);
  expected.emplace_back("stopAll");
  EXPECT_TRUE(host.backend.calls == expected);
}

}  // namespace
}  // namespace palaver
