// Tests how the platform reads sound files.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "platform/audio/SndfileAudioFile.h"
#include "simulator/scenario/SoundFile.h"

namespace palaver {

namespace {

class AudioFileTest : public testing::Test {
 protected:
  AudioFileTest() { std::filesystem::create_directories(directory_); }
  ~AudioFileTest() override { std::filesystem::remove_all(directory_); }

  std::filesystem::path path(const std::string& name = "file") const { return directory_ / name; }
  std::filesystem::path write(const SoundFileDescription& description) const {
    writeSoundFile(path(), description);
    return path();
  }
  std::unique_ptr<AudioFile> open(const std::filesystem::path& which) { return files.openForReading(which); }

  // Reads to the end in buffers of `frames` frames. Returns the frames of each read.
  static std::vector<std::uint32_t> readAll(AudioFile& file, std::uint32_t frames, float loudness,
                                            float tolerance) {
    std::vector<std::uint32_t> lengths;
    while (file.framePosition() < file.length()) {
      PCMBuffer buffer(file.processingFormat(), frames);
      file.read(buffer);
      lengths.push_back(buffer.frameLength());
      if (buffer.frameLength() == 0) break;
      for (std::uint32_t channel = 0; channel < file.processingFormat().channelCount; ++channel) {
        double power = 0;
        for (std::uint32_t i = 0; i < buffer.frameLength(); ++i)
          power += std::pow(buffer.floatChannelData(channel)[i], 2);
        EXPECT_NEAR(std::sqrt(power / buffer.frameLength()), loudness, tolerance);
      }
    }
    return lengths;
  }

  SndfileAudioFiles files;

 private:
  const std::filesystem::path directory_ = std::filesystem::path(testing::TempDir()) /
                                           testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(AudioFileTest, EveryContainerAndSampleTypeIsReadAsFloat) {
  for (const auto* const container : {"wav", "flac", "aiff", "ogg"})
    for (const auto* const encoding : {"int16", "int24", "float"}) {
      const std::string name = std::string(container) + " " + encoding;
      SCOPED_TRACE(name);
      if (name == "flac float") continue;  // FLAC has no float samples
      const auto file = open(write({container, encoding, 16000, 1, 10000, 0.25}));
      EXPECT_EQ(file->processingFormat(), (AudioFormat{CommonFormat::float32, 16000, 1, false}));
      EXPECT_EQ(file->length(), 10000);
      const float tolerance = std::string(container) == "ogg" ? 0.02f : 1e-4f;
      EXPECT_EQ(readAll(*file, 4000, 0.25f, tolerance), (std::vector<std::uint32_t>{4000, 4000, 2000}));
      EXPECT_EQ(file->framePosition(), 10000);
    }
}

TEST_F(AudioFileTest, RateAndChannelsAreThoseOfFile) {
  for (const int rate : {8000, 16000, 22050, 44100, 48000, 96000})
    for (const int channels : {1, 2, 6}) {
      SCOPED_TRACE(rate);
      const auto file = open(write({"wav", "int16", rate, channels, 1000, 0.5}));
      EXPECT_EQ(file->processingFormat(), (AudioFormat{CommonFormat::float32, static_cast<double>(rate),
                                                       static_cast<std::uint32_t>(channels), false}));
      EXPECT_EQ(readAll(*file, 1000, 0.5f, 1e-4f), std::vector<std::uint32_t>{1000});
    }
}

TEST_F(AudioFileTest, EmptyFileHasNoFrames) {
  // The FLAC encoder writes no file without frames.
  for (const auto* const container : {"wav", "aiff", "ogg"}) {
    const auto file = open(write({container, "int16", 16000, 1, 0, 0}));
    EXPECT_EQ(file->length(), 0) << container;
    PCMBuffer buffer(file->processingFormat(), 10);
    buffer.setFrameLength(10);
    file->read(buffer);
    EXPECT_EQ(buffer.frameLength(), 0u) << container;
  }
}

TEST_F(AudioFileTest, ReadAfterEndYieldsNothing) {
  const auto file = open(write({"wav", "int16", 16000, 1, 5, 0}));
  PCMBuffer buffer(file->processingFormat(), 10);
  file->read(buffer);
  EXPECT_EQ(buffer.frameLength(), 5u);
  file->read(buffer);
  EXPECT_EQ(buffer.frameLength(), 0u);
  EXPECT_EQ(file->framePosition(), 5);
}

TEST_F(AudioFileTest, TruncatedWAVYieldsAvailableFrames) {
  const auto cut = write({"wav", "int16", 16000, 1, 10000, 0.25});
  std::filesystem::resize_file(cut, std::filesystem::file_size(cut) / 2);
  const auto file = open(cut);
  std::int64_t frames = 0;
  for (const auto length : readAll(*file, 4000, 0.25f, 1e-4f)) frames += length;
  EXPECT_GT(frames, 4900);
  EXPECT_LE(frames, 5000);
}

// A truncated coded stream yields the decodable frames, then an error or the end. It never crashes
// or reads endlessly.
TEST_F(AudioFileTest, TruncatedCodedFileEnds) {
  for (const auto* const container : {"flac", "ogg"}) {
    const auto cut = write({container, "int16", 16000, 1, 100000, 0.25});
    const auto size = std::filesystem::file_size(cut);
    for (const auto left : {size * 3 / 4, size / 2, size / 4, size / 20}) {
      std::filesystem::resize_file(cut, left);
      try {
        const auto file = open(cut);
        std::int64_t frames = 0;
        for (int reads = 0; file->framePosition() < file->length(); ++reads) {
          ASSERT_LT(reads, 1000) << container;
          PCMBuffer buffer(file->processingFormat(), 4000);
          file->read(buffer);
          frames += buffer.frameLength();
          if (buffer.frameLength() == 0) break;
        }
        EXPECT_LT(frames, 100000) << container;
      } catch (const PlatformError& error) {
        EXPECT_STRNE(error.what(), "") << container;
      }
    }
  }
}

TEST_F(AudioFileTest, BufferOfOtherFormatIsRejected) {
  const auto file = open(write({"wav", "int16", 16000, 1, 5, 0}));
  PCMBuffer buffer({CommonFormat::int16, 16000, 1, false}, 10);
  EXPECT_THROW(file->read(buffer), PlatformError);
}

TEST_F(AudioFileTest, NonSoundFileIsRejectedWithText) {
  std::ofstream(path("text")) << "this is no sound";
  std::ofstream(path("empty")).close();
  for (const auto* const name : {"text", "empty", "missing", ""}) {
    try {
      open(path(name));
      ADD_FAILURE() << "\"" << name << "\" was opened";
    } catch (const PlatformError& error) {
      EXPECT_STRNE(error.what(), "") << name;
      EXPECT_NE(error.code(), 0) << name;
    }
  }
}

}  // namespace
}  // namespace palaver
