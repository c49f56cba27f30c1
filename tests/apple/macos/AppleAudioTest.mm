// Tests the AVFAudio adapters over the Linux resampler and sound files, including AVFAudio's believed
// deviations from its documentation.
#import <AVFAudio/AVFAudio.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "analyzer/BufferConverter.h"
#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#include "apple-stand-ins/objc/Runtime.h"
#include "platform/audio/SndfileAudioFile.h"
#include "platform/audio/SpeexAudioConverter.h"
#include "platform/macos/AppleAudioBuffers.h"
#include "platform/macos/AppleAudioConverter.h"
#include "platform/macos/AppleAudioFile.h"
#import "platform/macos/AudioValues.h"
#include "platform/macos/AutoreleasePool.h"
#include "platform/posix/ThreadPoolTasks.h"
#include "simulator/machine/Scheduler.h"
#include "simulator/machine/SimulatedSpeechRecognition.h"
#include "simulator/scenario/SoundFile.h"
#include "tests/apple/native/AudioSupport.h"

namespace palaver {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::size_t alive(Class of) { return objc::liveObjects((__bridge objc::Class*)of); }

class AppleAudio : public testing::Test {
 protected:
  AppleAudio() { std::filesystem::create_directories(directory_); }
  ~AppleAudio() override {
    std::filesystem::remove_all(directory_);
    EXPECT_EQ(alive([NSObject class]), 0U);
  }

  Quirks& quirks() { return behaviour_.quirks; }
  std::string write(const SoundFileDescription& description, const std::string& name = "ton 音.wav") const {
    writeSoundFile(directory_ / name, description);
    return directory_ / name;
  }
  // Returns the error message of opening or reading.
  static std::string failure(const std::function<void()>& attempt) {
    try {
      attempt();
    } catch (const PlatformError& error) {
      return error.domain() + ": " + error.what();
    }
    return "";
  }

  const std::filesystem::path directory_ = std::filesystem::path(testing::TempDir()) /
                                           testing::UnitTest::GetInstance()->current_test_info()->name();
  Scheduler scheduler_;
  SimulatedSpeechRecognition recognition_{scheduler_, {}};
  SpeexAudioConverters speexConverters_;
  SndfileAudioFiles sndfiles_;
  FrameworkBehaviour behaviour_{recognition_, speexConverters_, sndfiles_, {15, 0, 0}};
  AppleAudioBuffers buffers_;
  AppleAudioConverters converters_;
  AppleAudioFiles files_;
};

TEST_F(AppleAudio, FormatsMatchSystemFormats) {
  EXPECT_EQ(buffers_.makeFormat(CommonFormat::int16, 16000, 1, false), mono(CommonFormat::int16, 16000));
  const auto stereo = buffers_.makeFormat(CommonFormat::float32, 48000, 2, true);
  ASSERT_TRUE(stereo);
  EXPECT_TRUE(stereo->interleaved);
  EXPECT_EQ(stereo->channelCount, 2U);
  EXPECT_FALSE(buffers_.makeFormat(CommonFormat::int16, 16000, 3, false)) << "that needs a layout";
  EXPECT_FALSE(buffers_.makeFormat(CommonFormat::other, 16000, 1, false));
  EXPECT_FALSE(buffers_.makeFormat(CommonFormat::int16, 0, 1, false));
  EXPECT_FALSE(buffers_.makeFormat(CommonFormat::int16, std::numeric_limits<double>::quiet_NaN(), 1, false));
  EXPECT_FALSE(buffers_.makeFormat(CommonFormat::int16, 16000, 0, false));
}

TEST_F(AppleAudio, NewBuffersAreEmptyWithRequestedCapacity) {
  const auto buffer = buffers_.makeBuffer(mono(CommonFormat::int16, 16000), 1600);
  ASSERT_TRUE(buffer);
  EXPECT_EQ(buffer->frameCapacity(), 1600U);
  EXPECT_EQ(buffer->frameLength(), 0U);
  EXPECT_TRUE(buffers_.makeBuffer(mono(CommonFormat::int16, 16000), 0));
  EXPECT_FALSE(buffers_.makeBuffer(mono(CommonFormat::int16, 16000), 0x80000000)) << "4 GiB";
}

TEST_F(AppleAudio, FailedWrapReleasesBuffer) {
  const AutoreleasePool pool;
  auto buffer = ramp(mono(CommonFormat::int16, 16000), 100);
  const std::weak_ptr<PCMBuffer> watch = buffer;
  AVAudioFormat* const format = toAVAudioFormat(buffer->format());
  quirks().refusesForeignMemory = true;
  EXPECT_EQ(wrap(std::move(buffer), format), nil);
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(wrap(ramp(mono(CommonFormat::int16, 16000), 0), format), nil) << "no room";
  EXPECT_EQ(wrap(std::make_shared<PCMBuffer>(mono(CommonFormat::float64, 16000), 10), format), nil);
}

TEST_F(AppleAudio, ConversionMatchesDirectConverter) {
  const auto from = mono(CommonFormat::int16, 48000), to = mono(CommonFormat::int16, 16000);
  std::vector<std::shared_ptr<PCMBuffer>> chunks;
  for (int i = 0; i < 30; ++i) chunks.push_back(ramp(from, 100, i * 100));
  const auto direct = convertChunks(*speexConverters_.makeConverter(from, to), chunks);
  const auto apple = converters_.makeConverter(from, to);
  ASSERT_TRUE(apple);
  EXPECT_EQ(apple->inputFormat(), from);
  EXPECT_EQ(apple->outputFormat(), to);
  apple->setPrimeMethod(ConverterPrimeMethod::none);
  const auto converted = convertChunks(*apple, chunks);
  EXPECT_EQ(converted.samples, direct.samples);
  EXPECT_GT(converted.samples.size(), 900U);
  // inputRanDry is the normal end of a call whose single buffer was consumed.
  for (const auto status : converted.statuses) EXPECT_EQ(status, ConverterOutputStatus::inputRanDry);
}

TEST_F(AppleAudio, ExceptionIsAConversionError) {
  const auto format = mono(CommonFormat::int16, 16000);
  const auto converter = converters_.makeConverter(format, mono(CommonFormat::float32, 48000));
  PCMBuffer output(converter->outputFormat(), 300);
  std::optional<PlatformError> error;
  const auto wrongInput = [](ConverterInputStatus& status) {
    status = ConverterInputStatus::haveData;
    return ramp(mono(CommonFormat::float32, 16000), 10);
  };
  EXPECT_EQ(converter->convert(output, error, wrongInput), ConverterOutputStatus::error);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "com.apple.coreaudio.avfaudio");
  EXPECT_THAT(error->localizedDescription(), HasSubstr("_inputFormat"));
  EXPECT_EQ(output.frameLength(), 0U);

  quirks().convertRaises = "required condition is false: something";
  EXPECT_EQ(converter->convert(output, error, wrongInput), ConverterOutputStatus::error);
  EXPECT_EQ(error->localizedDescription(), "required condition is false: something");
}

TEST_F(AppleAudio, RefusedBufferIsAConversionError) {
  const auto format = mono(CommonFormat::int16, 16000);
  const auto converter = converters_.makeConverter(format, format);
  quirks().refusesForeignMemory = true;
  PCMBuffer output(format, 10);
  std::optional<PlatformError> error;
  EXPECT_EQ(converter->convert(output, error, [](ConverterInputStatus&) { return nullptr; }),
            ConverterOutputStatus::error);
  EXPECT_TRUE(error);
}

TEST_F(AppleAudio, InputExceptionBypassesSystem) {
  const auto format = mono(CommonFormat::int16, 16000);
  const auto converter = converters_.makeConverter(format, format);
  PCMBuffer output(format, 10);
  std::optional<PlatformError> error;
  EXPECT_THROW(converter->convert(
                   output, error,
                   [](ConverterInputStatus&) -> std::shared_ptr<const PCMBuffer> { throw std::bad_alloc(); }),
               std::bad_alloc);
  EXPECT_THAT(convertChunks(*converter, {ramp(format, 3)}).samples, ElementsAre(0, 1, 2)) << "and it goes on";
}

TEST_F(AppleAudio, UnsupportedFormatPairHasNoConverter) {
  const auto format = mono(CommonFormat::int16, 16000);
  EXPECT_FALSE(converters_.makeConverter(format, {CommonFormat::int16, 16000, 2, false}));
  EXPECT_FALSE(converters_.makeConverter({CommonFormat::int16, 16000, 6, false}, format));
}

TEST_F(AppleAudio, FileIsReadToEnd) {
  for (const int channels : {1, 2, 6}) {
    const auto file = files_.openForReading(write({"wav", "int16", 44100, channels, 10000, 0.25}));
    EXPECT_EQ(file->processingFormat(),
              (AudioFormat{CommonFormat::float32, 44100, static_cast<std::uint32_t>(channels), false}));
    EXPECT_EQ(file->length(), 10000);
    const auto direct = sndfiles_.openForReading(directory_ / "ton 音.wav");
    std::vector<std::uint32_t> lengths;
    while (file->framePosition() < file->length()) {
      PCMBuffer buffer(file->processingFormat(), 4000), expected(file->processingFormat(), 4000);
      file->read(buffer);
      direct->read(expected);
      lengths.push_back(buffer.frameLength());
      for (std::uint32_t channel = 0; channel < static_cast<std::uint32_t>(channels); ++channel)
        for (std::uint32_t i = 0; i < buffer.frameLength(); ++i)
          ASSERT_EQ(buffer.floatChannelData(channel)[i], expected.floatChannelData(channel)[i]);
    }
    EXPECT_THAT(lengths, ElementsAre(4000, 4000, 2000));
    EXPECT_EQ(file->framePosition(), 10000);
  }
}

TEST_F(AppleAudio, FailureWithoutErrorHasText) {
  quirks().overstatedLength = 100;
  const auto file = files_.openForReading(write({"wav", "int16", 16000, 1, 5, 0}));
  PCMBuffer buffer(file->processingFormat(), 10);
  file->read(buffer);
  EXPECT_EQ(buffer.frameLength(), 5U);
  EXPECT_EQ(failure([&] { file->read(buffer); }),
            "PalaverSTT: The sound file cannot be read any further; the system gives no reason");
  EXPECT_EQ(buffer.frameLength(), 0U);
  quirks().opensNothingWithoutError = true;
  EXPECT_EQ(failure([&] { files_.openForReading("anything"); }),
            "PalaverSTT: The sound file cannot be opened; the system gives no reason");
}

TEST_F(AppleAudio, InvalidSoundFileReportsSystemError) {
  std::ofstream(directory_ / "text") << "this is no sound";
  for (const auto* const name : {"text", "missing", ""}) {
    const auto path = directory_ / name;
    const auto expected = failure([&] { sndfiles_.openForReading(path); });
    EXPECT_FALSE(expected.empty());
    EXPECT_EQ(failure([&] { files_.openForReading(path); }), expected) << name;
  }
}

TEST_F(AppleAudio, RefusedBufferIsAReadError) {
  const auto file = files_.openForReading(write({"wav", "int16", 16000, 1, 5, 0}));
  PCMBuffer buffer(file->processingFormat(), 10);
  quirks().refusesForeignMemory = true;
  EXPECT_THAT(failure([&] { file->read(buffer); }), HasSubstr("cannot make an audio buffer"));
}

}  // namespace
}  // namespace palaver
