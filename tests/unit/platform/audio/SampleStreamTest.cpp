#include "platform/audio/SampleStream.h"

#include <gmock/gmock.h>

#include <cmath>
#include <numbers>
#include <string>

#include "tests/support/WaveBytes.h"

namespace palaver {
namespace {

using Samples = std::vector<std::int16_t>;

// Converts a stream that arrives in pieces of that size.
Samples convert(const std::string& bytes, std::size_t piece, std::optional<RawFormat> stated = {}) {
  SampleStream stream(stated);
  Samples out;
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    const auto part = bytes.substr(at, piece);
    stream.append({reinterpret_cast<const std::uint8_t*>(part.data()), part.size()}, out);
  }
  stream.finish(out);
  return out;
}

std::string failure(const std::string& bytes, std::optional<RawFormat> stated = {}) {
  try {
    convert(bytes, 7, stated);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "no failure";
}

std::string sine(int rate, int channels, int frames) {
  std::string bytes;
  for (int frame = 0; frame < frames; ++frame) {
    const auto sample = std::lrint(10000 * std::sin(2 * std::numbers::pi * 300 * frame / rate));
    for (int channel = 0; channel < channels; ++channel) bytes += little(sample, 2);
  }
  return bytes;
}

TEST(SampleStreamTest, RawSamplesAre16KHzMonoUnlessStated) {
  EXPECT_EQ(convert(little(1, 2) + little(0xFFFF, 2) + little(0x7FFF, 2) + little(0x8000, 2), 3),
            (Samples{1, -1, 32767, -32768}));
  const auto converted = convert(sine(48000, 2, 48000), 100, RawFormat{48000, 2});
  ASSERT_EQ(converted.size(), 16000U);
  for (std::size_t i = 200; i < 15800; ++i)
    ASSERT_NEAR(converted[i], 10000 * std::sin(2 * std::numbers::pi * 300 * static_cast<double>(i) / 16000),
                20);
}

TEST(SampleStreamTest, SizeOfPiecesDoesNotChangeSamples) {
  const auto data = sine(44100, 1, 9000);
  const auto bytes =
      riff(chunk("LIST", "some text") + chunk("fmt ", waveFormat(1, 1, 44100, 16)) + chunk("data", data));
  const auto whole = convert(bytes, bytes.size());
  EXPECT_EQ(whole.size(), 3265U);
  for (const std::size_t piece : {1U, 7U, 1000U, 4096U}) EXPECT_EQ(convert(bytes, piece), whole) << piece;
}

TEST(SampleStreamTest, EverySampleEncodingIsDecoded) {
  using namespace std::string_literals;
  const std::vector<std::tuple<int, int, std::string>> halves{{1, 8, "\xC0"s},
                                                              {1, 16, "\x00\x40"s},
                                                              {1, 24, "\x00\x00\x40"s},
                                                              {1, 32, "\x00\x00\x00\x40"s},
                                                              {3, 32, "\x00\x00\x00\x3F"s},
                                                              {3, 64, "\x00\x00\x00\x00\x00\x00\xE0\x3F"s}};
  for (const auto& [tag, bits, half] : halves)
    EXPECT_EQ(convert(riff(chunk("fmt ", waveFormat(tag, 1, 16000, bits)) + chunk("data", half + half)), 5),
              (Samples{16384, 16384}))
        << tag << " " << bits;
}

TEST(SampleStreamTest, FloatsThatAreNoAudioAreSilence) {
  using namespace std::string_literals;
  const auto data = "\x00\x00\xC0\x7F"s + "\x00\x00\x80\x7F"s + "\x00\x00\x80\xFF"s + "\x00\x00\x00\x3F"s;
  const auto bytes = riff(chunk("fmt ", waveFormat(3, 1, 16000, 32)) + chunk("data", data));
  EXPECT_EQ(convert(bytes, 100), (Samples{0, 0, 0, 16384}));
}

TEST(SampleStreamTest, ChunksAfterSamplesAreIgnored) {
  const auto bytes = riff(chunk("fmt ", waveFormat(1, 1, 16000, 16)) + chunk("data", little(5, 2)) +
                          chunk("LIST", "abcdef"));
  for (const std::size_t piece : {1U, 100U}) EXPECT_EQ(convert(bytes, piece), Samples{5});
}

TEST(SampleStreamTest, HalfAFrameAtTheEndIsDropped) {
  EXPECT_EQ(convert(little(5, 2) + "x", 1), Samples{5});
  EXPECT_EQ(convert(little(5, 2) + little(7, 2) + little(9, 2), 6, RawFormat{16000, 2}), Samples{6});
}

TEST(SampleStreamTest, OtherContainersAreNamed) {
  EXPECT_EQ(failure("fLaC............"), "is FLAC, and only WAV and raw samples are read from a stream");
  EXPECT_EQ(failure("OggS............"), "is Ogg, and only WAV and raw samples are read from a stream");
}

TEST(SampleStreamTest, HeaderMustAgreeWithStatedFormat) {
  const auto bytes = wave(waveFormat(1, 2, 44100, 16), 8);
  EXPECT_EQ(failure(bytes, RawFormat{44100, 2}), "no failure");
  EXPECT_EQ(failure(bytes, RawFormat{48000, 2}),
            "has a WAV header with 44100 Hz and 2 channels, which differs from the stated format");
}

TEST(SampleStreamTest, DamagedHeaderIsNamed) {
  EXPECT_EQ(failure(wave(waveFormat(1, 0, 16000, 16), 8)), "is not a readable WAV stream: it has 0 channels");
  EXPECT_EQ(failure(wave(waveFormat(1, 1, 16000, 16), 8).substr(0, 30)), "ends within its WAV header");
  EXPECT_EQ(failure(""), "no failure");
}

}  // namespace
}  // namespace palaver
