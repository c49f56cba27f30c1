#include "core/PCMDecoding.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/posix/MemoryAudioBuffers.h"

namespace palaver {
namespace {

// Creates buffers in memory and injects faults.
class FaultyAudioBuffers final : public AudioBuffers {
 public:
  std::optional<AudioFormat> makeFormat(CommonFormat commonFormat, double sampleRate, std::uint32_t channels,
                                        bool interleaved) override {
    ++formats;
    if (refusesFormat) return std::nullopt;
    return AudioFormat{givesFloats ? CommonFormat::float32 : commonFormat, sampleRate, channels, interleaved};
  }
  std::shared_ptr<PCMBuffer> makeBuffer(const AudioFormat& format, std::uint32_t frameCapacity) override {
    capacities.push_back(frameCapacity);
    if (refusesBuffer || (refusesEmptyBuffer && frameCapacity == 0)) return nullptr;
    return std::make_shared<PCMBuffer>(format, frameCapacity);
  }

  bool refusesFormat = false, refusesBuffer = false, refusesEmptyBuffer = false;
  bool givesFloats = false;  // so that the buffer has no 16-bit samples
  int formats = 0;
  std::vector<std::uint32_t> capacities;
};

// Returns the error that decoding throws, or none.
std::optional<PCMError> errorOf(AudioBuffers& buffers, std::string_view base64) {
  try {
    makePCMBuffer(buffers, base64);
  } catch (const PCMError& error) {
    return error;
  }
  return std::nullopt;
}

std::string encoded(const std::vector<std::uint8_t>& bytes) {
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    unsigned group = 0;
    for (std::size_t i = 0; i < 3; ++i) group = group << 8 | (at + i < bytes.size() ? bytes[at + i] : 0U);
    for (std::size_t i = 0; i < 4; ++i)
      text += at + i > bytes.size() ? '=' : alphabet[(group >> (18 - 6 * i)) & 0x3F];
  }
  return text;
}

TEST(PCMDecodingTest, TwoZeroBytesAreOneFrame) {
  MemoryAudioBuffers buffers;
  const auto buffer = makePCMBuffer(buffers, "AAA=");
  EXPECT_EQ(buffer->frameLength(), 1U);
  EXPECT_EQ(buffer->frameCapacity(), 1U);
  EXPECT_EQ(buffer->int16ChannelData()[0], 0);
}

TEST(PCMDecodingTest, FormatIs16KHzMonoSigned16Bit) {
  MemoryAudioBuffers buffers;
  const auto format = makePCMBuffer(buffers, "AAA=")->format();
  EXPECT_EQ(format.commonFormat, CommonFormat::int16);
  EXPECT_EQ(format.sampleRate, 16000.0);
  EXPECT_EQ(format.channelCount, 1U);
  EXPECT_FALSE(format.interleaved);
}

TEST(PCMDecodingTest, OddByteCountIsRejected) {
  MemoryAudioBuffers buffers;
  for (const auto* const text : {"AAAA", "AA=="})
    EXPECT_EQ(errorOf(buffers, text), PCMError(PCMError::Case::oddByteCount)) << text;
  for (std::size_t size = 1; size < 100; ++size)
    EXPECT_EQ(errorOf(buffers, encoded(std::vector<std::uint8_t>(size))).has_value(), size % 2 == 1) << size;
}

TEST(PCMDecodingTest, InvalidBase64IsRejected) {
  MemoryAudioBuffers buffers;
  for (const auto* const text : {"A", "AA", "AAA", "AA=A", "A===", "AAA\n", "AA\nA", "AAAA\nAAA", "AA-_",
                                 "AA A", "!!!!", "AAAAAAA=AAAA", "é=="})
    EXPECT_EQ(errorOf(buffers, text), PCMError(PCMError::Case::invalidBase64)) << text;
}

TEST(PCMDecodingTest, Payload100MsIs1600LittleEndianSamples) {
  std::vector<std::uint8_t> bytes(3200);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
  MemoryAudioBuffers buffers;
  const auto buffer = makePCMBuffer(buffers, encoded(bytes));
  ASSERT_EQ(buffer->frameLength(), 1600U);
  ASSERT_EQ(buffer->frameCapacity(), 1600U);
  for (std::size_t i = 0; i < 1600; ++i)
    ASSERT_EQ(buffer->int16ChannelData()[i], static_cast<std::int16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8))
        << i;
}

TEST(PCMDecodingTest, ExtremeSamplesAreKept) {
  MemoryAudioBuffers buffers;
  const auto buffer = makePCMBuffer(buffers, encoded({0x00, 0x80, 0xFF, 0x7F, 0xFF, 0xFF, 0x01, 0x00}));
  ASSERT_EQ(buffer->frameLength(), 4U);
  const auto* const samples = buffer->int16ChannelData();
  EXPECT_EQ(samples[0], -32768);
  EXPECT_EQ(samples[1], 32767);
  EXPECT_EQ(samples[2], -1);
  EXPECT_EQ(samples[3], 1);
}

TEST(PCMDecodingTest, EmptyTextIsEmptyBuffer) {
  MemoryAudioBuffers buffers;
  const auto buffer = makePCMBuffer(buffers, "");
  EXPECT_EQ(buffer->frameLength(), 0U);
  EXPECT_EQ(buffer->frameCapacity(), 0U);
}

TEST(PCMDecodingTest, RefusedEmptyBufferIsReported) {
  FaultyAudioBuffers buffers;
  buffers.refusesEmptyBuffer = true;
  EXPECT_EQ(errorOf(buffers, ""), PCMError(PCMError::Case::bufferUnavailable));
  EXPECT_EQ(errorOf(buffers, "AAA="), std::nullopt);
}

TEST(PCMDecodingTest, RequestedCapacityIsFrameCount) {
  FaultyAudioBuffers buffers;
  for (const std::size_t frames : {0U, 1U, 3U, 160U, 4096U})
    makePCMBuffer(buffers, encoded(std::vector<std::uint8_t>(frames * 2)));
  EXPECT_EQ(buffers.capacities, (std::vector<std::uint32_t>{0, 1, 3, 160, 4096}));
}

TEST(PCMDecodingTest, PlatformFaultsHaveTheirErrors) {
  FaultyAudioBuffers noFormat;
  noFormat.refusesFormat = true;
  EXPECT_EQ(errorOf(noFormat, "AAA="), PCMError(PCMError::Case::formatUnavailable));
  FaultyAudioBuffers noBuffer;
  noBuffer.refusesBuffer = true;
  EXPECT_EQ(errorOf(noBuffer, "AAA="), PCMError(PCMError::Case::bufferUnavailable));
  FaultyAudioBuffers noSamples;
  noSamples.givesFloats = true;
  EXPECT_EQ(errorOf(noSamples, "AAA="), PCMError(PCMError::Case::bufferUnavailable));
}

TEST(PCMDecodingTest, PayloadIsCheckedBeforePlatform) {
  FaultyAudioBuffers buffers;
  buffers.refusesFormat = true;
  EXPECT_EQ(errorOf(buffers, "?"), PCMError(PCMError::Case::invalidBase64));
  EXPECT_EQ(errorOf(buffers, "AAAA"), PCMError(PCMError::Case::oddByteCount));
  EXPECT_EQ(buffers.formats, 0);
  EXPECT_TRUE(buffers.capacities.empty());
}

TEST(PCMDecodingTest, InvalidTextPrecedesRefusalsOfPlatform) {
  // Of every length, so that some would be an odd number of bytes.
  for (std::size_t size = 1; size < 70; ++size)
    for (const char c : {'?', '=', '\n'}) {
      std::string text(size, 'A');
      text[size / 2] = c;
      FaultyAudioBuffers noFormat, noBuffer, noSamples, fine;
      noFormat.refusesFormat = noBuffer.refusesBuffer = noSamples.givesFloats = true;
      for (auto* const buffers : {&noFormat, &noBuffer, &noSamples, &fine})
        ASSERT_EQ(errorOf(*buffers, text), PCMError(PCMError::Case::invalidBase64)) << text;
    }
}

TEST(PCMDecodingTest, ErrorsHaveTheirTexts) {
  EXPECT_STREQ(PCMError(PCMError::Case::invalidBase64).what(), "pcmBase64 is not valid Base64");
  EXPECT_STREQ(PCMError(PCMError::Case::oddByteCount).what(),
               "PCM16 payload must contain an even number of bytes");
  EXPECT_STREQ(PCMError(PCMError::Case::formatUnavailable).what(),
               "Could not create the 16 kHz PCM audio format");
  EXPECT_STREQ(PCMError(PCMError::Case::bufferUnavailable).what(), "Could not allocate an audio buffer");
  EXPECT_FALSE(PCMError(PCMError::Case::invalidBase64) == PCMError(PCMError::Case::oddByteCount));
}

TEST(PCMDecodingTest, EachCallCreatesOwnBuffer) {
  MemoryAudioBuffers buffers;
  const auto first = makePCMBuffer(buffers, "AQA=");
  const auto second = makePCMBuffer(buffers, "AgA=");
  EXPECT_NE(first->int16ChannelData(), second->int16ChannelData());
  EXPECT_EQ(first->int16ChannelData()[0], 1);
  EXPECT_EQ(second->int16ChannelData()[0], 2);
}

}  // namespace
}  // namespace palaver
