#include "modes/ResearchTranscription.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <asio/io_context.hpp>
#include <cstdint>
#include <exception>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "core/JSONLineWriter.h"
#include "platform/AudioFile.h"
#include "simulator/machine/SimulatedPlatform.h"

namespace palaver {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

// Runs a coroutine to its end. Returns domain, code and text of its error, or "none".
std::string errorOf(asio::awaitable<void> coroutine) {
  asio::io_context context;
  std::string error = "none";
  asio::co_spawn(context, std::move(coroutine), [&error](const std::exception_ptr& failure) {
    try {
      if (failure) std::rethrow_exception(failure);
    } catch (const PlatformError& thrown) {
      error = thrown.domain() + "#" + std::to_string(thrown.code()) + " " + thrown.what();
    }
  });
  context.run();
  return error;
}

// A file of silence that returns at most the stated number of frames per read.
class SilentFile final : public AudioFile {
 public:
  SilentFile(std::int64_t length, std::vector<std::uint32_t> reads, AudioFormat format = usualFormat)
      : length_(length), reads_(std::move(reads)), format_(format) {}

  const AudioFormat& processingFormat() const override { return format_; }
  std::int64_t length() const override { return length_; }
  std::int64_t framePosition() const override { return position_; }
  void read(PCMBuffer& buffer) override {
    ASSERT_LT(readCount, reads_.size()) << "read after the end";
    const auto frames = std::min(buffer.frameCapacity(), reads_[readCount++]);
    std::fill_n(buffer.floatChannelData(), frames, 0.0F);
    buffer.setFrameLength(frames);
    position_ += frames;
  }

  std::size_t readCount = 0;

 private:
  static constexpr AudioFormat usualFormat{CommonFormat::float32, 16000, 1, false};
  const std::int64_t length_;
  const std::vector<std::uint32_t> reads_;
  const AudioFormat format_;
  std::int64_t position_ = 0;
};

class ResearchRecordingTest : public testing::Test {
 protected:
  std::string read(SilentFile& file) {
    return errorOf(readRecording(file, buffers, [this](const auto& buffer, double capturedAt) {
      taken.emplace_back(buffer->frameLength(), capturedAt);
    }));
  }

  SimulatedAudioBuffers buffers;
  std::vector<std::pair<std::uint32_t, double>> taken;  // frames and capture time (ms) of each buffer
};

TEST_F(ResearchRecordingTest, CaptureTimesCountFramesBefore) {
  SilentFile file(10000, {9999, 9999, 2000});
  EXPECT_EQ(read(file), "none");
  EXPECT_THAT(taken, ElementsAre(Pair(4000, 0), Pair(4000, 250), Pair(2000, 500)));
}

TEST_F(ResearchRecordingTest, ShortReadsShiftCaptureTimes) {
  SilentFile file(200, {8, 16, 176});
  EXPECT_EQ(read(file), "none");
  EXPECT_THAT(taken, ElementsAre(Pair(8, 0), Pair(16, 0.5), Pair(176, 1.5)));
}

TEST_F(ResearchRecordingTest, ReadWithoutFramesIsEnd) {
  SilentFile file(10000, {4000, 0});
  EXPECT_EQ(read(file), "none");
  EXPECT_THAT(taken, ElementsAre(Pair(4000, 0)));
  EXPECT_EQ(file.readCount, 2U);
}

TEST_F(ResearchRecordingTest, FileWithoutFramesIsNotRead) {
  SilentFile file(0, {});
  EXPECT_EQ(read(file), "none");
  EXPECT_EQ(file.readCount, 0U);
}

TEST_F(ResearchRecordingTest, MissingBufferIsError3) {
  buffers.setFault(SimulatedAudioBuffers::Fault::noBuffer);
  SilentFile file(10000, {});
  EXPECT_EQ(read(file), "STTResearch#3 Cannot allocate research audio buffer");
}

class OneFile final : public AudioFiles {
 public:
  std::unique_ptr<AudioFile> openForReading(const std::string&) override {
    return std::make_unique<SilentFile>(0, std::vector<std::uint32_t>{}, format);
  }
  AudioFormat format;
};

class ResearchTranscriptionTest : public testing::Test {
 protected:
  std::string transcribe(int phrases, const AudioFormat& format) {
    const auto vocabulary = testing::TempDir() + "/research-vocabulary.json";
    std::ofstream file(vocabulary, std::ios::trunc);
    for (int i = 0; i < phrases; ++i) file << (i == 0 ? "[" : ",") << "\"w\"";
    file << "]";
    file.close();
    OneFile files;
    files.format = format;
    std::string error;
    machine_.run(
        [&](Platform& all) {
          struct : Platform {
            AudioFiles& audioFiles;
          } parts{all, files};
          Platform platform = platformOf(parts);
          JSONLineWriter writer(platform.clock, platform.standardOutput, platform.standardError);
          error = errorOf(transcribeResearchFile("", vocabulary, platform, writer));
        },
        1e6);
    return error;
  }

  SimulatedPlatform machine_;
};

TEST_F(ResearchTranscriptionTest, TooManyPhrasesAreError1) {
  EXPECT_EQ(transcribe(101, {CommonFormat::float32, 16000, 1, false}),
            "STTResearch#1 Research vocabulary exceeds 100 terms");
}

TEST_F(ResearchTranscriptionTest, OtherFormatIsError2) {
  for (const auto& format : {AudioFormat{CommonFormat::float32, 16001, 1, false},
                             AudioFormat{CommonFormat::float32, 16000, 2, false}})
    EXPECT_EQ(transcribe(100, format), "STTResearch#2 Expected 16 kHz mono audio");
}

}  // namespace
}  // namespace palaver
