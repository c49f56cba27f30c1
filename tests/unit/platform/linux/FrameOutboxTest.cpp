#include "platform/linux/FrameOutbox.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <vector>

#include "platform/posix/Descriptor.h"
#include "tests/support/RecordedAnswers.h"

namespace palaver {
namespace {

class FrameOutboxTest : public testing::Test {
 protected:
  void SetUp() override {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    own_ = Descriptor(ends[0]);
    other_ = Descriptor(ends[1]);
  }

  // Pushes one second of audio, whose samples are the number of that second.
  void pushSecond(std::uint32_t task, int second) {
    const auto buffer = makeSpeechBuffer(std::vector<std::int16_t>(16000, static_cast<std::int16_t>(second)));
    outbox_.pushAudio(task, static_cast<std::uint64_t>(second) * 16000, buffer, 0, 16000);
  }

  // Writes and reads everything. Returns the frames as (type, id, first sample or 0).
  std::vector<std::array<int, 3>> exchange() {
    std::vector<std::array<int, 3>> frames;
    FrameDecoder decoder;
    for (;;) {
      EXPECT_TRUE(outbox_.flush(own_.get()));
      const auto room = decoder.prepare();
      const auto count = ::recv(other_.get(), room.data(), room.size(), MSG_DONTWAIT);
      if (count <= 0) return frames;
      decoder.received(static_cast<std::size_t>(count));
      while (const auto frame = decoder.next()) {
        int sample = 0;
        if (frame->type == FrameType::audio) {
          const auto audio = decodeAudio(frame->payload);
          sample = static_cast<int>(audio.samples[0]);
          EXPECT_EQ(audio.position, static_cast<std::uint64_t>(sample) * 16000);
          EXPECT_EQ(audio.samples.size(), 32000U);
        }
        frames.push_back({static_cast<int>(frame->type), static_cast<int>(frame->id), sample});
      }
    }
  }

  FrameOutbox outbox_;
  Descriptor own_, other_;
};

TEST_F(FrameOutboxTest, FramesKeepTheirOrder) {
  outbox_.push(encodeStart(1, 1, {}));
  pushSecond(1, 0);
  outbox_.push(encodeFrame(FrameType::endAudio, 1));
  pushSecond(2, 1);
  EXPECT_EQ(exchange(), (std::vector<std::array<int, 3>>{{1, 1, 0}, {2, 1, 0}, {3, 1, 0}, {2, 2, 1}}));
  EXPECT_TRUE(outbox_.isEmpty());
  EXPECT_EQ(outbox_.waitingFrames(1), 0U);
}

TEST_F(FrameOutboxTest, PartOfBufferIsSent) {
  std::vector<std::int16_t> samples(32000);
  for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<std::int16_t>(i / 16000);
  outbox_.pushAudio(1, 16000, makeSpeechBuffer(samples), 16000, 16000);
  EXPECT_EQ(exchange(), (std::vector<std::array<int, 3>>{{2, 1, 1}}));
}

TEST_F(FrameOutboxTest, OldestAudioOfTaskIsDroppedBeyond60s) {
  outbox_.push(encodeStart(1, 1, {}));
  for (int second = 0; second < 5; ++second) pushSecond(2, second);
  for (int second = 0; second < 70; ++second) pushSecond(1, second);
  outbox_.push(encodeFrame(FrameType::endAudio, 1));
  EXPECT_EQ(outbox_.waitingFrames(1), FrameOutbox::maxWaitingFrames);
  EXPECT_EQ(outbox_.waitingFrames(2), 5U * 16000);
  const auto frames = exchange();
  ASSERT_EQ(frames.size(), 1U + 5 + 60 + 1);
  EXPECT_EQ(frames[0], (std::array<int, 3>{1, 1, 0}));
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(frames[static_cast<std::size_t>(1 + i)], (std::array<int, 3>{2, 2, i}));
  for (int i = 0; i < 60; ++i)
    EXPECT_EQ(frames[static_cast<std::size_t>(6 + i)], (std::array<int, 3>{2, 1, 10 + i}));
  EXPECT_EQ(frames.back(), (std::array<int, 3>{3, 1, 0}));
}

TEST_F(FrameOutboxTest, FrameThatIsPartlyWrittenStaysWhole) {
  for (int second = 0; second < 20; ++second) pushSecond(1, second);
  ASSERT_TRUE(outbox_.flush(own_.get()));
  ASSERT_FALSE(outbox_.isEmpty()) << "the socket took everything, so nothing is tested";
  outbox_.dropAudio(1);
  outbox_.push(encodeFrame(FrameType::cancelTask, 1));
  const auto frames = exchange();  // fails on a torn frame
  EXPECT_EQ(frames.back(), (std::array<int, 3>{4, 1, 0}));
  EXPECT_LT(frames.size(), 20U);
}

TEST_F(FrameOutboxTest, ClosedSocketIsReportedWithoutSignal) {
  other_.close();
  outbox_.push(encodeFrame(FrameType::endAudio, 1));
  EXPECT_FALSE(outbox_.flush(own_.get()));
}

}  // namespace
}  // namespace palaver
