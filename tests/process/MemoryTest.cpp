// Tests that resident memory is released after a stall or a huge line.
#include <gmock/gmock.h>

#include <chrono>

#include "tests/support/HelperProcess.h"

namespace palaver {
namespace {

constexpr std::size_t mebibyte = std::size_t{1} << 20;

class MemoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifdef PALAVER_SANITIZED
    GTEST_SKIP() << "sanitizers keep freed memory";
#endif
    ASSERT_EQ(helper_.readEvent()["type"], "helper.status");
    ping();
    base_ = helper_.residentMemory();
    if (base_ == 0) GTEST_SKIP() << "this system does not report the resident memory of another process";
  }
  void ping() {
    ASSERT_TRUE(helper_.sendLine(R"({"type":"ping","sentAt":-1})"));
    while (helper_.readEvent()["sentAt"] != -1) {
    }
  }
  // A pong may arrive before the memory of its command is freed, so several pings are sent.
  std::size_t residentMemoryOnceBelow(std::size_t limit) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
      ping();
      const auto now = helper_.residentMemory();
      if (now < limit || std::chrono::steady_clock::now() > deadline) return now;
    }
  }

  HelperProcess helper_;
  std::size_t base_ = 0;
};

TEST_F(MemoryTest, HelperIsSmall) {
  EXPECT_LT(base_, 16 * mebibyte);
}

TEST_F(MemoryTest, MemoryOfHugeLineIsReleased) {
  ASSERT_TRUE(
      helper_.send(R"({"type":"ping","sentAt":1,"extra":")" + std::string(64 * mebibyte, 'x') + "\"}\n"));
  ASSERT_EQ(helper_.readEvent()["sentAt"], 1);
  EXPECT_LT(residentMemoryOnceBelow(base_ + 2 * mebibyte), base_ + 2 * mebibyte);
}

TEST_F(MemoryTest, MemoryOfStallIsReleased) {
  std::string commands;
  for (int i = 0; i < 20000; ++i)
    commands += "{\"type\":\"ping\",\"sentAt\":0}\n";  // the answers fill the pipe
  const std::string audio =
      R"({"type":"audio","sessionId":"none","source":"self","sequence":1,"capturedAt":1,)"
      R"("pcmBase64":")" +
      std::string(4400, 'A') + "\"}\n";
  while (commands.size() < 64 * mebibyte) commands += audio;
  ASSERT_TRUE(helper_.send(commands));
  EXPECT_GT(helper_.residentMemory(), base_ + 32 * mebibyte)
      << "the stall used no memory, so nothing is tested";
  EXPECT_LT(residentMemoryOnceBelow(base_ + 4 * mebibyte), base_ + 4 * mebibyte);
}

TEST_F(MemoryTest, SteadyStreamDoesNotGrow) {
  const std::string audio =
      R"({"type":"audio","sessionId":"none","source":"self","sequence":1,"capturedAt":1,)"
      R"("pcmBase64":")" +
      std::string(4400, 'A') + "\"}\n";
  const auto stream = [&](int chunks) {
    for (int i = 0; i < chunks; ++i) {
      ASSERT_TRUE(helper_.send(audio));
      ASSERT_EQ(helper_.readEvent()["type"], "helper.error");
    }
  };
  stream(500);
  const auto before = helper_.residentMemory();
  stream(10000);  // 44 MB: 20 minutes of one source
  EXPECT_LT(helper_.residentMemory(), before + mebibyte);
}

}  // namespace
}  // namespace palaver
