#include "platform/audio/SoundStreamSource.h"

#include <unistd.h>

#include <gmock/gmock.h>

#include <string>

#include "platform/posix/Descriptor.h"
#include "tests/support/WaveBytes.h"

namespace palaver {
namespace {

class SoundStreamSourceTest : public testing::Test {
 protected:
  void write(const std::string& bytes) const {
    ASSERT_EQ(::write(pipe.writeEnd.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  std::vector<std::int16_t> read(std::size_t frames) {
    std::vector<std::int16_t> samples(frames);
    samples.resize(source.read(samples));
    return samples;
  }
  std::string failure(const std::string& bytes) {
    write(bytes);
    pipe.writeEnd.close();
    try {
      while (source.descriptor() >= 0) source.receive();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "no failure";
  }

  Pipe pipe = makePipe();
  SoundStreamSource source{pipe.readEnd.get(), "standard input", std::nullopt};
};

TEST_F(SoundStreamSourceTest, AudioCanBeReadWhenItHasArrived) {
  EXPECT_EQ(source.descriptor(), pipe.readEnd.get());
  EXPECT_FALSE(source.canRead(1));
  write(std::string(12, '\1'));
  source.receive();
  EXPECT_TRUE(source.canRead(6));
  EXPECT_FALSE(source.canRead(7));
  EXPECT_EQ(read(4), std::vector<std::int16_t>(4, 257));
  pipe.writeEnd.close();
  source.receive();
  EXPECT_EQ(source.descriptor(), -1);
  EXPECT_TRUE(source.canRead(1000));
  EXPECT_EQ(read(1000).size(), 2U);
}

TEST_F(SoundStreamSourceTest, StopEndsWithWhatHasArrived) {
  write(std::string(100, '\1'));
  source.stop();
  EXPECT_EQ(source.descriptor(), -1);
  EXPECT_EQ(read(1000).size(), 50U);
}

TEST_F(SoundStreamSourceTest, FullMinutePausesReceiving) {
  for (int i = 0; source.descriptor() >= 0; ++i) {
    ASSERT_LT(i, 1000);
    write(std::string(32000, '\1'));
    source.receive();
  }
  EXPECT_EQ(source.liveSince(), std::nullopt);
}

TEST_F(SoundStreamSourceTest, LiveUnlessAheadOfClock) {
  EXPECT_EQ(source.liveSince(), std::nullopt);
  write(std::string(3200, '\1'));
  source.receive();
  EXPECT_NE(source.liveSince(), std::nullopt);  // 100 ms: within the slack
  write(std::string(60000, '\1'));
  source.receive();
  write(std::string(60000, '\1'));
  source.receive();
  // 3.9 s of audio: more than a microphone hears until a slow machine is here.
  EXPECT_EQ(source.liveSince(), std::nullopt);
}

TEST_F(SoundStreamSourceTest, EndedStreamIsNotLive) {
  write(std::string(3200, '\1'));
  pipe.writeEnd.close();
  while (source.descriptor() >= 0) source.receive();
  EXPECT_EQ(source.liveSince(), std::nullopt);
}

TEST_F(SoundStreamSourceTest, EmptyStreamIsNamed) {
  EXPECT_EQ(failure(""), "standard input contains no audio");
}

TEST_F(SoundStreamSourceTest, HeaderWithoutSamplesIsNamed) {
  EXPECT_EQ(failure(wave(waveFormat(1, 1, 16000, 16), 0)), "standard input contains no audio");
}

TEST_F(SoundStreamSourceTest, OtherContainerIsNamed) {
  EXPECT_EQ(failure("fLaC............"),
            "standard input is FLAC, and only WAV and raw samples are read from a stream");
}

}  // namespace
}  // namespace palaver
