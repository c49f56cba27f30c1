// Compares the resampler used off macOS with ideal sine waves. The tolerance is derived from the ratio.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "platform/audio/SpeexAudioConverter.h"

namespace palaver {
namespace {

AudioFormat mono(CommonFormat commonFormat, double sampleRate) {
  return {commonFormat, sampleRate, 1, false};
}

double sine(double frequency, double sampleRate, std::size_t frame) {
  return 0.5 * std::sin(2 * std::numbers::pi * frequency * static_cast<double>(frame) / sampleRate);
}

std::shared_ptr<PCMBuffer> sineBuffer(const AudioFormat& format, double frequency, std::size_t start,
                                      std::uint32_t frames) {
  auto buffer = std::make_shared<PCMBuffer>(format, frames);
  buffer->setFrameLength(frames);
  for (std::uint32_t i = 0; i < frames; ++i) {
    const double value = sine(frequency, format.sampleRate, start + i);
    if (auto* const whole = buffer->int16ChannelData()) {
      whole[i] = static_cast<std::int16_t>(std::lrint(value * 32768));
    } else {
      buffer->floatChannelData()[i] = static_cast<float>(value);
    }
  }
  return buffer;
}

// Converts a stream of `frames` input frames in chunks.
std::vector<double> convertSine(AudioConverter& converter, double frequency, std::size_t frames,
                                std::uint32_t chunk) {
  std::vector<double> out;
  const double ratio = converter.outputFormat().sampleRate / converter.inputFormat().sampleRate;
  for (std::size_t start = 0; start < frames; start += chunk) {
    const auto input = sineBuffer(converter.inputFormat(), frequency, start, chunk);
    PCMBuffer output(converter.outputFormat(), static_cast<std::uint32_t>(std::ceil(chunk * ratio)));
    std::optional<PlatformError> error;
    bool given = false;
    const auto status = converter.convert(output, error, [&](ConverterInputStatus& inputStatus) {
      inputStatus = given ? ConverterInputStatus::noDataNow : ConverterInputStatus::haveData;
      return std::exchange(given, true) ? nullptr : input;
    });
    EXPECT_EQ(status, ConverterOutputStatus::inputRanDry);
    EXPECT_FALSE(error);
    for (std::uint32_t i = 0; i < output.frameLength(); ++i)
      out.push_back(output.int16ChannelData() ? output.int16ChannelData()[i] / 32768.0
                                              : static_cast<double>(output.floatChannelData()[i]));
  }
  return out;
}

// Returns the signal-to-error ratio in dB against the ideal sine that starts at the first input sample.
// Excludes the first frames, where the resampler's filter still covers the silence before the stream.
double signalToError(const std::vector<double>& samples, double frequency, double sampleRate,
                     std::size_t edge) {
  double signal = 0;
  double error = 0;
  for (std::size_t i = edge; i < samples.size(); ++i) {
    const double ideal = sine(frequency, sampleRate, i);
    signal += ideal * ideal;
    error += (ideal - samples[i]) * (ideal - samples[i]);
  }
  return 10 * std::log10(signal / error);
}

std::unique_ptr<AudioConverter> makeConverter(const AudioFormat& from, const AudioFormat& to) {
  auto converter = SpeexAudioConverters().makeConverter(from, to);
  if (converter) converter->setPrimeMethod(ConverterPrimeMethod::none);
  return converter;
}

class ResamplingTo : public testing::TestWithParam<double> {};

TEST_P(ResamplingTo, SineSNRIsAtLeast95dB) {
  const double rate = GetParam();
  const auto edge = static_cast<std::size_t>(std::ceil(200 * rate / 16000));  // 200 input frames
  for (const double frequency : {300.0, 1000.0, 3400.0, 7000.0}) {
    if (frequency > 0.425 * rate) continue;  // would alias in the output
    const auto converter =
        makeConverter(mono(CommonFormat::float32, 16000), mono(CommonFormat::float32, rate));
    ASSERT_TRUE(converter);
    const auto samples = convertSine(*converter, frequency, 32000, 1600);
    ASSERT_GT(samples.size(), edge * 2);
    EXPECT_GE(signalToError(samples, frequency, rate, edge), 95) << frequency << " Hz at " << rate << " Hz";
  }
}

TEST_P(ResamplingTo, SineSNRIn16BitsIsAtLeast88dB) {
  const double rate = GetParam();
  const auto edge = static_cast<std::size_t>(std::ceil(200 * rate / 16000));
  const auto converter = makeConverter(mono(CommonFormat::int16, 16000), mono(CommonFormat::int16, rate));
  ASSERT_TRUE(converter);
  const auto samples = convertSine(*converter, 1000, 32000, 1600);
  // Two roundings to 16 bits with a sine at half of full scale: 98.1 - 6 - 3 dB.
  EXPECT_GE(signalToError(samples, 1000, rate, edge), 88);
}

TEST_P(ResamplingTo, ChunkSizeDoesNotChangeSamples) {
  const auto convertInChunksOf = [rate = GetParam()](std::uint32_t chunk) {
    const auto converter =
        makeConverter(mono(CommonFormat::float32, 16000), mono(CommonFormat::float32, rate));
    return convertSine(*converter, 440, 9600, chunk);
  };
  const auto whole = convertInChunksOf(9600);
  for (const std::uint32_t chunk : {1u, 7u, 160u, 1600u}) {
    const auto pieces = convertInChunksOf(chunk);
    // The resampler holds back a few input frames at the end. Their count depends on the last chunk.
    const std::size_t common = std::min(whole.size(), pieces.size());
    EXPECT_LE(static_cast<double>(std::max(whole.size(), pieces.size()) - common),
              std::ceil(8 * GetParam() / 16000));
    for (std::size_t i = 0; i < common; ++i)
      ASSERT_EQ(whole[i], pieces[i]) << "frame " << i << ", chunk " << chunk;
  }
}

TEST_P(ResamplingTo, DoesNotDrift) {
  const double rate = GetParam();
  const auto converter = makeConverter(mono(CommonFormat::float32, 16000), mono(CommonFormat::float32, rate));
  const double ratio = rate / 16000;
  const auto input = std::make_shared<PCMBuffer>(mono(CommonFormat::float32, 16000), 1600);
  input->setFrameLength(1600);
  std::fill_n(input->floatChannelData(), 1600, 0.0f);
  // One hour at 48 kHz, a common rate, and five minutes at other rates. The resampler's phase wraps
  // around many times.
  const std::uint64_t chunks = rate == 48000 ? 36'000 : 3'000;
  std::uint64_t out = 0;
  for (std::uint64_t i = 0; i < chunks; ++i) {
    PCMBuffer output(converter->outputFormat(), static_cast<std::uint32_t>(std::ceil(1600 * ratio)));
    std::optional<PlatformError> error;
    bool given = false;
    const auto status = converter->convert(output, error, [&](ConverterInputStatus& inputStatus) {
      inputStatus = given ? ConverterInputStatus::noDataNow : ConverterInputStatus::haveData;
      return std::exchange(given, true) ? nullptr : input;
    });
    ASSERT_EQ(status, ConverterOutputStatus::inputRanDry) << "input was left over in chunk " << i;
    out += output.frameLength();
  }
  const double expected = static_cast<double>(chunks * 1600) * ratio;
  const double heldBack = expected - static_cast<double>(out);
  EXPECT_GE(heldBack, 0);
  EXPECT_LE(heldBack / ratio, 200) << "input frames";
}

INSTANTIATE_TEST_SUITE_P(EveryRate, ResamplingTo,
                         testing::Values(8000, 11025, 12000, 22050, 24000, 32000, 44100, 48000, 88200, 96000),
                         [](const auto& rate) {
                           return std::to_string(static_cast<int>(rate.param)) + "Hz";
                         });

TEST(AudioConverter, FirstOutputSampleIsFirstInputSample) {
  // Uses a step far from the edges of the filter. The output must step at the same time as the input.
  const auto converter =
      makeConverter(mono(CommonFormat::float32, 16000), mono(CommonFormat::float32, 48000));
  const auto input = std::make_shared<PCMBuffer>(converter->inputFormat(), 1600);
  input->setFrameLength(1600);
  for (std::uint32_t i = 0; i < 1600; ++i) input->floatChannelData()[i] = i < 800 ? 0.0f : 0.5f;
  PCMBuffer output(converter->outputFormat(), 4800);
  std::optional<PlatformError> error;
  bool given = false;
  converter->convert(output, error, [&](ConverterInputStatus& status) {
    status = given ? ConverterInputStatus::noDataNow : ConverterInputStatus::haveData;
    return std::exchange(given, true) ? nullptr : input;
  });
  ASSERT_GT(output.frameLength(), 2500u);
  EXPECT_NEAR(output.floatChannelData()[2399 - 30], 0.0f, 0.05f);
  EXPECT_NEAR(output.floatChannelData()[2400 + 30], 0.5f, 0.05f);
  std::uint32_t crossing = 0;
  while (output.floatChannelData()[crossing] < 0.25f) ++crossing;
  EXPECT_NEAR(crossing, 2400, 3);  // within one input frame
}

TEST(AudioConverter, EqualRatesChangeOnlySampleType) {
  const auto converter = makeConverter(mono(CommonFormat::float32, 16000), mono(CommonFormat::int16, 16000));
  ASSERT_TRUE(converter);
  const auto input = std::make_shared<PCMBuffer>(converter->inputFormat(), 5);
  input->setFrameLength(5);
  const float values[] = {0, 0.5f, -1.0f, 1.0f, 2.0f};
  std::copy(std::begin(values), std::end(values), input->floatChannelData());
  PCMBuffer output(converter->outputFormat(), 5);
  std::optional<PlatformError> error;
  bool given = false;
  converter->convert(output, error, [&](ConverterInputStatus& status) {
    status = given ? ConverterInputStatus::noDataNow : ConverterInputStatus::haveData;
    return std::exchange(given, true) ? nullptr : input;
  });
  ASSERT_EQ(output.frameLength(), 5u);
  const std::int16_t expected[] = {0, 16384, -32768, 32767, 32767};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(output.int16ChannelData()[i], expected[i]);
}

TEST(AudioConverter, ExcessInputIsKeptForNextCall) {
  const auto converter = makeConverter(mono(CommonFormat::int16, 16000), mono(CommonFormat::float32, 16000));
  const auto input = sineBuffer(converter->inputFormat(), 1000, 0, 100);
  PCMBuffer small(converter->outputFormat(), 60);
  std::optional<PlatformError> error;
  int asked = 0;
  const auto once = [&](ConverterInputStatus& status) -> std::shared_ptr<const PCMBuffer> {
    status = asked == 0 ? ConverterInputStatus::haveData : ConverterInputStatus::noDataNow;
    return asked++ == 0 ? input : nullptr;
  };
  EXPECT_EQ(converter->convert(small, error, once), ConverterOutputStatus::haveData);
  EXPECT_EQ(small.frameLength(), 60u);
  EXPECT_EQ(converter->convert(small, error, once), ConverterOutputStatus::inputRanDry);
  EXPECT_EQ(small.frameLength(), 40u);
}

TEST(AudioConverter, BufferOfOtherFormatIsError) {
  const auto converter = makeConverter(mono(CommonFormat::int16, 16000), mono(CommonFormat::float32, 48000));
  const auto wrong = sineBuffer(mono(CommonFormat::float32, 16000), 1000, 0, 100);
  PCMBuffer output(converter->outputFormat(), 300);
  std::optional<PlatformError> error;
  EXPECT_EQ(converter->convert(output, error,
                               [&](ConverterInputStatus& status) {
                                 status = ConverterInputStatus::haveData;
                                 return wrong;
                               }),
            ConverterOutputStatus::error);
  EXPECT_TRUE(error);
}

TEST(AudioConverter, StereoAndOtherSampleTypesAreUnsupported) {
  SpeexAudioConverters converters;
  const auto usual = mono(CommonFormat::int16, 16000);
  EXPECT_FALSE(converters.makeConverter(usual, {CommonFormat::int16, 48000, 2, false}));
  EXPECT_FALSE(converters.makeConverter({CommonFormat::int16, 16000, 2, false}, usual));
  EXPECT_FALSE(converters.makeConverter(usual, mono(CommonFormat::float64, 48000)));
  EXPECT_FALSE(converters.makeConverter(usual, mono(CommonFormat::other, 48000)));
  EXPECT_FALSE(converters.makeConverter(usual, mono(CommonFormat::int16, 0)));
  EXPECT_FALSE(converters.makeConverter(usual, mono(CommonFormat::int16, std::nan(""))));
  EXPECT_FALSE(converters.makeConverter(usual, mono(CommonFormat::int16, 44100.5)));
}

}  // namespace
}  // namespace palaver
