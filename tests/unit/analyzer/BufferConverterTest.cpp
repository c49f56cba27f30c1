// Tests how a channel's converter uses the platform converter.
#include "analyzer/BufferConverter.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "platform/audio/SpeexAudioConverter.h"
#include "platform/posix/MemoryAudioBuffers.h"

namespace palaver {
namespace {

using Case = BufferConverter::ConversionError::Case;

AudioFormat mono(CommonFormat commonFormat, double sampleRate) {
  return {commonFormat, sampleRate, 1, false};
}

const AudioFormat helperFormat = mono(CommonFormat::int16, 16000);

std::shared_ptr<PCMBuffer> silence(std::uint32_t frames, const AudioFormat& format = helperFormat) {
  auto buffer = std::make_shared<PCMBuffer>(format, frames);
  buffer->setFrameLength(frames);
  if (auto* const samples = buffer->int16ChannelData()) std::fill_n(samples, frames, std::int16_t{0});
  if (auto* const samples = buffer->floatChannelData()) std::fill_n(samples, frames, 0.0f);
  return buffer;
}

// Records the calls of a converter and holds its answers.
struct Record {
  int created = 0;
  bool refuseToMake = false;
  bool failConversions = false;
  bool refuseBuffers = false;
  std::vector<ConverterPrimeMethod> primeMethods;
  std::vector<std::uint32_t> capacities;
  std::vector<ConverterInputStatus> statuses;
};

class RecordingConverter final : public AudioConverter {
 public:
  RecordingConverter(Record& record, std::unique_ptr<AudioConverter> real)
      : record_(record), real_(std::move(real)) {}

  const AudioFormat& inputFormat() const override { return real_->inputFormat(); }
  const AudioFormat& outputFormat() const override { return real_->outputFormat(); }
  void setPrimeMethod(ConverterPrimeMethod method) override { record_.primeMethods.push_back(method); }
  ConverterOutputStatus convert(PCMBuffer& output, std::optional<PlatformError>& error,
                                const InputBlock& input) override {
    if (record_.failConversions) {
      error.emplace("com.example.audio", -7, "It broke");
      return ConverterOutputStatus::error;
    }
    return real_->convert(output, error, [&](ConverterInputStatus& status) {
      auto buffer = input(status);
      record_.statuses.push_back(status);
      return buffer;
    });
  }

 private:
  Record& record_;
  std::unique_ptr<AudioConverter> real_;
};

class RecordingConverters final : public AudioConverters {
 public:
  explicit RecordingConverters(Record& record) : record_(record) {}
  std::unique_ptr<AudioConverter> makeConverter(const AudioFormat& from, const AudioFormat& to) override {
    ++record_.created;
    if (record_.refuseToMake) return nullptr;
    return std::make_unique<RecordingConverter>(record_, SpeexAudioConverters().makeConverter(from, to));
  }

 private:
  Record& record_;
};

// Creates converters between any formats, which convert nothing.
class IdleConverters final : public AudioConverters {
 public:
  std::unique_ptr<AudioConverter> makeConverter(const AudioFormat& from, const AudioFormat& to) override {
    return std::make_unique<Converter>(from, to);
  }

 private:
  class Converter final : public AudioConverter {
   public:
    Converter(const AudioFormat& from, const AudioFormat& to) : from_(from), to_(to) {}
    const AudioFormat& inputFormat() const override { return from_; }
    const AudioFormat& outputFormat() const override { return to_; }
    void setPrimeMethod(ConverterPrimeMethod) override {}
    ConverterOutputStatus convert(PCMBuffer&, std::optional<PlatformError>&, const InputBlock&) override {
      return ConverterOutputStatus::error;
    }

   private:
    const AudioFormat from_, to_;
  };
};

class RecordingBuffers final : public AudioBuffers {
 public:
  explicit RecordingBuffers(Record& record) : record_(record) {}
  std::optional<AudioFormat> makeFormat(CommonFormat commonFormat, double sampleRate, std::uint32_t channels,
                                        bool interleaved) override {
    return real_.makeFormat(commonFormat, sampleRate, channels, interleaved);
  }
  std::shared_ptr<PCMBuffer> makeBuffer(const AudioFormat& format, std::uint32_t frameCapacity) override {
    record_.capacities.push_back(frameCapacity);
    return record_.refuseBuffers ? nullptr : real_.makeBuffer(format, frameCapacity);
  }

 private:
  Record& record_;
  MemoryAudioBuffers real_;
};

class BufferConverterTest : public testing::Test {
 protected:
  Case failureOf(std::uint32_t frames, const AudioFormat& format) {
    try {
      converter.convert(silence(frames), format);
    } catch (const BufferConverter::ConversionError& error) {
      failure = error;
      return error.which();
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
  }

  Record record;
  RecordingConverters converters{record};
  RecordingBuffers buffers{record};
  BufferConverter converter{buffers, converters};
  std::optional<BufferConverter::ConversionError> failure;
};

TEST_F(BufferConverterTest, BufferInTargetFormatIsReturnedItself) {
  const auto buffer = silence(1600);
  EXPECT_EQ(converter.convert(buffer, helperFormat), buffer);
  EXPECT_EQ(converter.convert(buffer, {CommonFormat::int16, 16000, 1, true}), buffer)
      << "interleaving has no meaning for one channel";
  EXPECT_EQ(record.created, 0);
}

TEST_F(BufferConverterTest, CapacityIsRatioRoundedUpAndAtLeast1) {
  const std::vector<std::tuple<std::uint32_t, double, std::uint32_t>> cases{
      {1600, 48000, 4800}, {1600, 44100, 4410}, {1, 22050, 2}, {0, 48000, 1}, {1601, 8000, 801}};
  for (const auto& [frames, rate, capacity] : cases) {
    const auto output = converter.convert(silence(frames), mono(CommonFormat::int16, rate));
    EXPECT_EQ(output->frameCapacity(), capacity);
    EXPECT_EQ(record.capacities.back(), capacity);
  }
}

// No such buffer is allocated: the platform refuses each.
TEST_F(BufferConverterTest, LargestCapacityIs32Bits) {
  record.refuseBuffers = true;
  IdleConverters idle;
  BufferConverter any(buffers, idle);
  const auto oneFrame = silence(1, mono(CommonFormat::int16, 1));
  const auto convertTo = [&](double rate) { any.convert(oneFrame, mono(CommonFormat::int16, rate)); };
  EXPECT_THROW(convertTo(4294967295), BufferConverter::ConversionError);
  EXPECT_EQ(record.capacities, std::vector<std::uint32_t>{4294967295});
  EXPECT_THROW(convertTo(4294967296), BufferConverter::ConversionError);
  EXPECT_EQ(record.capacities.size(), 1u) << "a capacity that does not fit is not asked for";
}

TEST_F(BufferConverterTest, EmptyBufferStaysEmpty) {
  const auto output = converter.convert(silence(0), mono(CommonFormat::float32, 48000));
  EXPECT_EQ(output->frameLength(), 0u);
}

TEST_F(BufferConverterTest, ConverterIsReusedUntilFormatChanges) {
  const auto target = mono(CommonFormat::float32, 48000);
  converter.convert(silence(1600), target);
  converter.convert(silence(1600), target);
  EXPECT_EQ(record.created, 1);
  converter.convert(silence(1600), mono(CommonFormat::float32, 44100));
  EXPECT_EQ(record.created, 2);
  converter.convert(silence(1600, mono(CommonFormat::float32, 16000)), mono(CommonFormat::float32, 44100));
  EXPECT_EQ(record.created, 3);
  EXPECT_EQ(record.primeMethods, std::vector(3, ConverterPrimeMethod::none));
}

TEST_F(BufferConverterTest, EachCallProvidesBufferOnceAndNeverEndsStream) {
  converter.convert(silence(1600), mono(CommonFormat::int16, 48000));
  converter.convert(silence(1600), mono(CommonFormat::int16, 48000));
  const auto once = {ConverterInputStatus::haveData, ConverterInputStatus::noDataNow};
  std::vector<ConverterInputStatus> twice(once);
  twice.insert(twice.end(), once);
  EXPECT_EQ(record.statuses, twice);
}

TEST_F(BufferConverterTest, MissingConverterIsRetriedAtNextCall) {
  record.refuseToMake = true;
  EXPECT_EQ(failureOf(1600, mono(CommonFormat::int16, 48000)), Case::failedToCreateConverter);
  EXPECT_STREQ(
      failure->what(),
      "The operation couldn’t be completed. (PalaverSTTHelper.BufferConverter.ConversionError error 1.)");
  record.refuseToMake = false;
  EXPECT_NO_THROW(converter.convert(silence(1600), mono(CommonFormat::int16, 48000)));
  EXPECT_EQ(record.created, 2);
}

TEST_F(BufferConverterTest, ReplacementThatCannotBeCreatedIsError) {
  const auto first = mono(CommonFormat::int16, 48000), second = mono(CommonFormat::int16, 44100);
  converter.convert(silence(1600), first);
  record.refuseToMake = true;
  EXPECT_EQ(failureOf(1600, second), Case::failedToCreateConverter);
  EXPECT_EQ(failureOf(1600, first), Case::failedToCreateConverter) << "the former converter is released";
  record.refuseToMake = false;
  EXPECT_EQ(converter.convert(silence(1600), second)->format(), second);
  EXPECT_EQ(record.created, 4);
}

TEST_F(BufferConverterTest, RefusedOutputBufferIsErrorAndKeepsConverter) {
  record.refuseBuffers = true;
  EXPECT_EQ(failureOf(1600, mono(CommonFormat::int16, 48000)), Case::failedToCreateBuffer);
  EXPECT_STREQ(
      failure->what(),
      "The operation couldn’t be completed. (PalaverSTTHelper.BufferConverter.ConversionError error 2.)");
  record.refuseBuffers = false;
  EXPECT_NO_THROW(converter.convert(silence(1600), mono(CommonFormat::int16, 48000)));
  EXPECT_EQ(record.created, 1);
}

TEST_F(BufferConverterTest, FailedConversionHasItsErrorAndKeepsConverter) {
  record.failConversions = true;
  EXPECT_EQ(failureOf(1600, mono(CommonFormat::int16, 48000)), Case::conversionFailed);
  EXPECT_STREQ(
      failure->what(),
      "The operation couldn’t be completed. (PalaverSTTHelper.BufferConverter.ConversionError error 0.)");
  ASSERT_TRUE(failure->underlying());
  EXPECT_EQ(failure->underlying()->code(), -7);
  record.failConversions = false;
  EXPECT_NO_THROW(converter.convert(silence(1600), mono(CommonFormat::int16, 48000)));
  EXPECT_EQ(record.created, 1);
}

}  // namespace
}  // namespace palaver
