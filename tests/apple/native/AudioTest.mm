// Tests the AVFAudio adapters. Runs over the real AVFAudio on a Mac, and over its stand-in on Linux.
#import <AVFAudio/AVFAudio.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include "InstalledFrameworks.h"
#include "analyzer/BufferConverter.h"
#include "platform/macos/AppleAudioBuffers.h"
#include "platform/macos/AppleAudioConverter.h"
#include "platform/macos/AppleAudioFile.h"
#import "platform/macos/AudioValues.h"
#include "platform/macos/AutoreleasePool.h"
#include "simulator/scenario/SoundFile.h"
#include "tests/apple/native/AudioSupport.h"

namespace palaver {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class NativeAudio : public testing::Test {
 protected:
  NativeAudio() { std::filesystem::create_directories(directory_); }
  ~NativeAudio() override { std::filesystem::remove_all(directory_); }

  std::string write(const SoundFileDescription& description) const {
    const auto path = directory_ / "ton 音.wav";
    writeSoundFile(path, description);
    return path;
  }
  // Returns the error message of reading.
  static std::string failure(const std::function<void()>& attempt) {
    try {
      attempt();
    } catch (const PlatformError& error) {
      return error.domain() + ": " + error.what();
    }
    return "";
  }

  const std::filesystem::path directory_ = std::filesystem::path(testing::TempDir()) / "NativeAudio" /
                                           testing::UnitTest::GetInstance()->current_test_info()->name();
  InstalledFrameworks frameworks_;
  AppleAudioBuffers buffers_;
  AppleAudioConverters converters_;
  AppleAudioFiles files_;
};

TEST_F(NativeAudio, FormatsMatchSystemFormats) {
  EXPECT_EQ(buffers_.makeFormat(CommonFormat::int16, 16000, 1, false), mono(CommonFormat::int16, 16000));
  EXPECT_FALSE(buffers_.makeFormat(CommonFormat::int16, 16000, 3, false)) << "that needs a layout";
}

// The resampler may hold back its look-ahead, and never adds audio.
TEST_F(NativeAudio, ResampledStreamHasItsLength) {
  const auto from = mono(CommonFormat::int16, 48000), to = mono(CommonFormat::int16, 16000);
  const auto converter = converters_.makeConverter(from, to);
  ASSERT_TRUE(converter);
  converter->setPrimeMethod(ConverterPrimeMethod::none);
  std::vector<std::shared_ptr<PCMBuffer>> chunks;
  for (int i = 0; i < 30; ++i) chunks.push_back(ramp(from, 300, i * 300));
  const auto frames = convertChunks(*converter, chunks).samples.size();
  EXPECT_GT(frames, 2800U);
  EXPECT_LE(frames, 3000U);
}

TEST_F(NativeAudio, FileIsReadInBuffersToItsEnd) {
  const auto file = files_.openForReading(write({"wav", "int16", 16000, 1, 10000, 0.25}));
  EXPECT_EQ(file->processingFormat(), mono(CommonFormat::float32, 16000));
  EXPECT_EQ(file->length(), 10000);
  std::vector<std::uint32_t> lengths;
  while (file->framePosition() < file->length()) {
    PCMBuffer buffer(file->processingFormat(), 4000);
    file->read(buffer);
    lengths.push_back(buffer.frameLength());
  }
  EXPECT_THAT(lengths, ElementsAre(4000, 4000, 2000));
}

TEST_F(NativeAudio, WrappedBufferSharesSamples) {
  const AutoreleasePool pool;
  for (const bool interleaved : {false, true})
    for (const auto type : {CommonFormat::int16, CommonFormat::float32})
      for (const std::uint32_t channels : {1U, 2U}) {
        const AudioFormat format{type, 16000, channels, interleaved};
        const auto buffer = ramp(format, 100);
        AVAudioPCMBuffer* const wrapped = wrap(buffer, toAVAudioFormat(format));
        ASSERT_NE(wrapped, nil);
        EXPECT_EQ(wrapped.frameLength, 100U);
        EXPECT_EQ(wrapped.frameCapacity, 100U);
        for (std::uint32_t channel = 0; channel < (interleaved ? 1 : channels); ++channel) {
          if (type == CommonFormat::int16)
            EXPECT_EQ(wrapped.int16ChannelData[channel], buffer->int16ChannelData(channel));
          else
            EXPECT_EQ(wrapped.floatChannelData[channel], buffer->floatChannelData(channel));
        }
      }
}

TEST_F(NativeAudio, WrappedBufferShowsFramesInUse) {
  const AutoreleasePool pool;
  const auto buffer = ramp(mono(CommonFormat::int16, 16000), 100);
  buffer->setFrameLength(40);
  EXPECT_EQ(wrap(buffer, toAVAudioFormat(buffer->format())).frameLength, 40U);
}

TEST_F(NativeAudio, WrappedBufferRetainsBuffer) {
  auto buffer = ramp(mono(CommonFormat::int16, 16000), 100);
  const std::weak_ptr<PCMBuffer> watch = buffer;
  AVAudioPCMBuffer* wrapped = nil;
  {
    const AutoreleasePool pool;
    AVAudioFormat* const format = toAVAudioFormat(buffer->format());
    wrapped = wrap(std::move(buffer), format);
  }
  EXPECT_FALSE(watch.expired());
  EXPECT_EQ(wrapped.int16ChannelData[0][99], 99);
  wrapped = nil;
  EXPECT_TRUE(watch.expired());
}

TEST_F(NativeAudio, EmptyBufferDoesNotEndStream) {
  const auto from = mono(CommonFormat::int16, 16000), to = mono(CommonFormat::int16, 16000);
  const auto converter = converters_.makeConverter(from, to);
  const auto converted =
      convertChunks(*converter, {ramp(from, 3, 1), std::make_shared<PCMBuffer>(from, 0), ramp(from, 3, 4)});
  EXPECT_THAT(converted.samples, ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(NativeAudio, EndOfStreamIsForwarded) {
  const auto format = mono(CommonFormat::int16, 16000);
  const auto converter = converters_.makeConverter(format, format);
  PCMBuffer output(format, 10);
  std::optional<PlatformError> error;
  EXPECT_EQ(converter->convert(output, error,
                               [](ConverterInputStatus& status) {
                                 status = ConverterInputStatus::endOfStream;
                                 return nullptr;
                               }),
            ConverterOutputStatus::endOfStream);
}

TEST_F(NativeAudio, MonoInterleavingIsIgnored) {
  const auto converter = converters_.makeConverter(mono(CommonFormat::int16, 16000, false),
                                                   mono(CommonFormat::int16, 16000, true));
  const auto converted = convertChunks(*converter, {ramp(mono(CommonFormat::int16, 16000, true), 3)});
  EXPECT_THAT(converted.samples, ElementsAre(0, 1, 2));
  // The analyzer's own format, as Macs report it, needs no conversion.
  EXPECT_EQ(mono(CommonFormat::int16, 16000, true), mono(CommonFormat::int16, 16000, false));
}

TEST_F(NativeAudio, OverflowWaitsForNextCall) {
  const auto format = mono(CommonFormat::int16, 16000);
  const auto converter = converters_.makeConverter(format, format);
  int asked = 0;
  const auto once = [&](ConverterInputStatus& status) -> std::shared_ptr<const PCMBuffer> {
    status = asked == 0 ? ConverterInputStatus::haveData : ConverterInputStatus::noDataNow;
    return asked++ == 0 ? ramp(format, 100) : nullptr;
  };
  PCMBuffer small(format, 60);
  std::optional<PlatformError> error;
  EXPECT_EQ(converter->convert(small, error, once), ConverterOutputStatus::haveData);
  EXPECT_EQ(small.frameLength(), 60U);
  EXPECT_EQ(converter->convert(small, error, once), ConverterOutputStatus::inputRanDry);
  EXPECT_EQ(small.frameLength(), 40U);
  EXPECT_EQ(small.int16ChannelData()[0], 60);
}

// Channel converters run on threads without an autorelease pool.
TEST_F(NativeAudio, ChannelsConvertWithoutAutoreleasePool) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 3; ++thread)
    threads.emplace_back([this] {
      BufferConverter converter(buffers_, converters_);
      std::uint64_t frames = 0;
      for (int i = 0; i < 50; ++i)
        frames +=
            converter.convert(ramp(mono(CommonFormat::int16, 16000), 1600), mono(CommonFormat::int16, 48000))
                ->frameLength();
      EXPECT_GT(frames, 50U * 4800 - 1000);
      EXPECT_LE(frames, 50U * 4800);
    });
  for (auto& thread : threads) thread.join();
}

// The system's read would fail here without an error.
TEST_F(NativeAudio, ReadAtEndReturnsNoFrames) {
  const auto file = files_.openForReading(write({"wav", "int16", 16000, 1, 5, 0}));
  PCMBuffer buffer(file->processingFormat(), 10);
  file->read(buffer);
  EXPECT_EQ(buffer.frameLength(), 5U);
  file->read(buffer);
  EXPECT_EQ(buffer.frameLength(), 0U);
  PCMBuffer none(file->processingFormat(), 0);
  file->read(none);
  const auto empty = files_.openForReading(write({"wav", "int16", 16000, 1, 0, 0}));
  buffer.setFrameLength(10);
  empty->read(buffer);
  EXPECT_EQ(buffer.frameLength(), 0U);
}

TEST_F(NativeAudio, BufferOfOtherFormatIsRejected) {
  const auto file = files_.openForReading(write({"wav", "int16", 16000, 1, 5, 0}));
  PCMBuffer buffer(mono(CommonFormat::int16, 16000), 10);
  EXPECT_THAT(failure([&] { file->read(buffer); }), HasSubstr("another format"));
}

}  // namespace
}  // namespace palaver
