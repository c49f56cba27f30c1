#include "platform/audio/WaveHeader.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/support/WaveBytes.h"

namespace palaver {
namespace {

using ::testing::HasSubstr;

std::optional<WaveHeader> parse(const std::string& bytes) {
  return parseWaveHeader({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
}

std::string failure(const std::string& bytes) {
  try {
    return parse(bytes) ? "no failure" : "more bytes are needed";
  } catch (const WaveError& error) {
    return error.what();
  }
}

TEST(WaveHeaderTest, UsualHeaderIsRead) {
  const auto header = parse(wave(waveFormat(1, 2, 44100, 16), 400));
  ASSERT_TRUE(header);
  EXPECT_EQ(header->format, (SampleFormat{SampleEncoding::signed16, 44100, 2}));
  EXPECT_EQ(header->dataOffset, 44U);
  EXPECT_EQ(header->dataBytes, 400U);
}

TEST(WaveHeaderTest, EncodingFollowsTagAndBits) {
  const std::vector<std::tuple<int, int, SampleEncoding>> known{
      {1, 8, SampleEncoding::unsigned8}, {1, 12, SampleEncoding::signed16}, {1, 16, SampleEncoding::signed16},
      {1, 20, SampleEncoding::signed24}, {1, 24, SampleEncoding::signed24}, {1, 32, SampleEncoding::signed32},
      {3, 32, SampleEncoding::float32},  {3, 64, SampleEncoding::float64}};
  for (const auto& [tag, bits, encoding] : known) {
    EXPECT_EQ(parse(wave(waveFormat(tag, 1, 16000, bits), 0))->format.encoding, encoding);
    EXPECT_EQ(parse(wave(extensibleFormat(tag, 1, 16000, bits), 0))->format.encoding, encoding);
  }
  for (const auto& [tag, bits] :
       {std::pair(6, 8), {7, 8}, {2, 4}, {1, 0}, {1, 33}, {1, 64}, {3, 16}, {0x55, 0}})
    EXPECT_THROW(parse(wave(waveFormat(tag, 1, 16000, bits), 0)), UnknownWaveEncoding) << tag << " " << bits;
  auto ambisonic = extensibleFormat(1, 4, 48000, 16);
  ambisonic.back() = 0;
  EXPECT_THROW(parse(wave(ambisonic, 0)), UnknownWaveEncoding);
}

TEST(WaveHeaderTest, ChunksBeforeSamplesAreSkipped) {
  const auto header = parse(riff(chunk("LIST", "odd") + chunk("fmt ", waveFormat(1, 1, 8000, 8)) +
                                 chunk("junk", std::string(5000, 'x')) + chunkHeader("data", 10)));
  ASSERT_TRUE(header);
  EXPECT_EQ(header->format.sampleRate, 8000);
  EXPECT_EQ(header->dataOffset, 12U + 12 + 24 + 5008 + 8);
}

TEST(WaveHeaderTest, EveryPrefixNeedsMoreBytes) {
  const auto whole =
      riff(chunk("JUNK", "abc") + chunk("fmt ", extensibleFormat(1, 1, 16000, 16)) + chunkHeader("data", 2));
  for (std::size_t size = 0; size < whole.size(); ++size)
    EXPECT_EQ(failure(whole.substr(0, size)), "more bytes are needed") << size;
  EXPECT_EQ(failure(whole), "no failure");
}

TEST(WaveHeaderTest, UnknownLengthMeansUpToEnd) {
  const auto format = chunk("fmt ", waveFormat(1, 1, 16000, 16));
  EXPECT_EQ(
      parse("RIFF" + little(0xFFFFFFFF, 4) + "WAVE" + format + chunkHeader("data", 0xFFFFFFFF))->dataBytes,
      std::nullopt);
  // The header of a writer that was ended before it could state the length, and that of an empty file with a
  // text.
  EXPECT_EQ(parse("RIFF" + little(36, 4) + "WAVE" + format + chunkHeader("data", 0) + "abcd")->dataBytes,
            std::nullopt);
  EXPECT_EQ(parse("RIFF" + little(48, 4) + "WAVE" + format + chunkHeader("data", 0) + chunk("LIST", "abcd"))
                ->dataBytes,
            0U);
}

TEST(WaveHeaderTest, LengthOfRF64Has64Bits) {
  const auto sizes = little(0, 8) + little(0x1'0000'0010, 8) + little(0, 12);
  const auto header = parse("RF64" + little(0xFFFFFFFF, 4) + "WAVE" + chunk("ds64", sizes) +
                            chunk("fmt ", waveFormat(1, 2, 48000, 24)) + chunkHeader("data", 0xFFFFFFFF));
  EXPECT_EQ(header->dataBytes, 0x1'0000'0010U);
}

TEST(WaveHeaderTest, DamageIsNamed) {
  EXPECT_EQ(failure("RIFF....AVI LIST"), "it is no WAV file");
  EXPECT_EQ(failure(riff(chunkHeader("data", 10))), "its samples precede the description of their format");
  EXPECT_EQ(failure(wave("short", 0)), "its description of the format is too short");
  EXPECT_EQ(failure(wave(waveFormat(0xFFFE, 1, 16000, 16), 0)), "its description of the format is too short");
  EXPECT_EQ(failure(wave(waveFormat(1, 0, 16000, 16), 0)), "it has 0 channels");
  EXPECT_EQ(failure(wave(waveFormat(1, 1000, 16000, 16), 0)), "it has 1000 channels");
  EXPECT_THAT(failure(wave(waveFormat(1, 1, 0, 16), 0)), HasSubstr("0 Hz"));
  EXPECT_THAT(failure(wave(waveFormat(1, 1, 2'000'000'000, 16), 0)), HasSubstr("2000000000 Hz"));
  auto misaligned = waveFormat(1, 2, 16000, 16);
  misaligned[12] = 3;
  EXPECT_EQ(failure(wave(misaligned, 0)), "its description of the format is damaged");
  EXPECT_EQ(failure(riff(chunkHeader("junk", 0xFFFFFFF0))), "it has no samples within its first 16 MiB");
}

}  // namespace
}  // namespace palaver
