#include "platform/audio/SoundFileSource.h"

#include <unistd.h>

#include <gmock/gmock.h>
#include <sndfile.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <string>
#include <vector>

#include "platform/audio/SndfileLibrary.h"
#include "platform/audio/SoundFile.h"
#include "platform/audio/openSound.h"

namespace palaver {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::HasSubstr;

// Owns a directory and removes it with its contents.
class SoundFileSourceTest : public ::testing::Test {
 protected:
  SoundFileSourceTest() {
    auto name = (std::filesystem::temp_directory_path() / "palaver-XXXXXX").string();
    if (!::mkdtemp(name.data())) throw std::runtime_error("no directory for the test");
    directory_ = name;
  }
  ~SoundFileSourceTest() override { std::filesystem::remove_all(directory_); }

  std::string path(const std::string& name) const { return directory_ / name; }

  std::string write(const std::string& name, const std::string& bytes) const {
    std::ofstream(path(name), std::ios::binary) << bytes;
    return path(name);
  }

  // Writes a file of one second. Channel c is a sine of (c + 1) * 200 Hz with amplitude 0.5.
  std::string writeSines(const std::string& name, int format, int rate, int channels, int frames) const {
    SF_INFO info{};
    info.format = format;
    info.samplerate = rate;
    info.channels = channels;
    auto* const file = sf_open(path(name).c_str(), SFM_WRITE, &info);
    if (!file) throw std::runtime_error(sf_strerror(nullptr));
    std::vector<float> samples;
    for (int frame = 0; frame < frames; ++frame)
      for (int channel = 0; channel < channels; ++channel)
        samples.push_back(0.5F * sine(200.0 * (channel + 1), frame, rate));
    sf_writef_float(file, samples.data(), frames);
    sf_close(file);
    return path(name);
  }

  static float sine(double frequency, int frame, int rate) {
    return static_cast<float>(std::sin(2 * std::numbers::pi * frequency * frame / rate));
  }

  // Reads all samples of the source in pieces of an odd size.
  static std::vector<std::int16_t> readAll(SoundSource& source) {
    std::vector<std::int16_t> all;
    for (std::vector<std::int16_t> piece(777);;) {
      const auto count = source.read(piece);
      all.insert(all.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(count));
      if (count < piece.size()) return all;
    }
  }

  // Returns the largest difference from the mean of the channels' sines. Excludes the edges of the file,
  // where a resampler rings.
  static double error(const std::vector<std::int16_t>& samples, int channels) {
    double worst = 0;
    constexpr std::size_t edge = 200;
    for (std::size_t at = edge; at + edge < samples.size(); ++at) {
      double expected = 0;
      for (int channel = 0; channel < channels; ++channel)
        expected += 0.5 * sine(200.0 * (channel + 1), static_cast<int>(at), sampleRate) / channels;
      worst = std::max(worst, std::abs(samples[at] / 32768.0 - expected));
    }
    return worst;
  }

  static std::string failure(const std::string& path) {
    try {
      SoundFileSource source(path);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "no failure";
  }

 private:
  std::filesystem::path directory_;
};

constexpr int wave = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
// Covers 16-bit rounding and the ripple of the resampler's pass band.
constexpr double tolerance = 0.001;

class Rates : public SoundFileSourceTest, public ::testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(Rates, AreResampledAndMixedDownInTime) {
  const auto [rate, channels] = GetParam();
  SoundFileSource source(writeSines("sines.wav", wave, rate, channels, rate));
  EXPECT_EQ(source.length(), sampleRate);
  const auto samples = readAll(source);
  EXPECT_EQ(samples.size(), static_cast<std::size_t>(sampleRate));
  EXPECT_LT(error(samples, channels), tolerance);
}

INSTANTIATE_TEST_SUITE_P(Usual, Rates,
                         ::testing::Values(std::pair(8000, 1), std::pair(11025, 2), std::pair(16000, 1),
                                           std::pair(16000, 2), std::pair(22050, 1), std::pair(32000, 2),
                                           std::pair(44100, 2), std::pair(48000, 6), std::pair(96000, 1)),
                         [](const auto& instance) {
                           return std::to_string(instance.param.first) + "HzIn" +
                                  std::to_string(instance.param.second) + "Channels";
                         });

TEST_F(SoundFileSourceTest, OtherContainersAreRead) {
  const std::vector<std::pair<std::string, int>> formats{{"sines.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
                                                         {"sines.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_24},
                                                         {"sines.caf", SF_FORMAT_CAF | SF_FORMAT_FLOAT},
                                                         {"sines.au", SF_FORMAT_AU | SF_FORMAT_PCM_16}};
  for (const auto& [name, format] : formats) {
    SoundFileSource source(writeSines(name, format, 44100, 2, 44100));
    EXPECT_LT(error(readAll(source), 2), tolerance) << name;
  }
}

TEST_F(SoundFileSourceTest, EveryEncodingOfWAVIsRead) {
  for (const int encoding : {SF_FORMAT_PCM_U8, SF_FORMAT_PCM_16, SF_FORMAT_PCM_24, SF_FORMAT_PCM_32,
                             SF_FORMAT_FLOAT, SF_FORMAT_DOUBLE, SF_FORMAT_ULAW, SF_FORMAT_ALAW})
    for (const int container : {SF_FORMAT_WAV, SF_FORMAT_WAVEX, SF_FORMAT_RF64}) {
      SoundFileSource source(writeSines("sines.wav", container | encoding, 22050, 2, 22050));
      EXPECT_EQ(source.length(), sampleRate);
      EXPECT_LT(error(readAll(source), 2), encoding == SF_FORMAT_PCM_U8 ? 0.01
                                           : encoding >= SF_FORMAT_ULAW ? 0.03
                                                                        : tolerance)
          << std::hex << (container | encoding);
    }
}

TEST_F(SoundFileSourceTest, WAVIsReadAsByLibrary) {
  for (const int encoding : {SF_FORMAT_PCM_16, SF_FORMAT_PCM_24, SF_FORMAT_FLOAT}) {
    const auto file = writeSines("sines.wav", SF_FORMAT_WAV | encoding, 44100, 2, 5000);
    const auto ours = openSound(file, {}, nullptr);
    SoundFile theirs(file);
    ASSERT_EQ(ours->length(), theirs.length());
    ASSERT_EQ(ours->channelCount(), theirs.channelCount());
    std::vector<float> first(10000), second(10000);
    ASSERT_EQ(ours->read(first), 5000U);
    ASSERT_EQ(theirs.read(second), 5000U);
    EXPECT_EQ(first, second);
  }
}

TEST_F(SoundFileSourceTest, TruncatedWAVIsReadToItsEnd) {
  const auto file = writeSines("cut.wav", wave, 16000, 1, 16000);
  std::filesystem::resize_file(file, 44 + 2 * 1000 + 1);
  SoundFileSource source(file);
  EXPECT_EQ(source.length(), 1000);
  EXPECT_EQ(readAll(source).size(), 1000U);
  std::filesystem::resize_file(file, 30);
  EXPECT_THAT(failure(file), HasSubstr("not a readable sound file: it ends within its header"));
}

TEST_F(SoundFileSourceTest, RawFormatMayBeStated) {
  SoundFileSource source(write("stereo.raw", std::string(4 * 48000, '\1')), {48000, 2});
  EXPECT_EQ(source.length(), sampleRate);
}

TEST_F(SoundFileSourceTest, OtherContainersNeedLibrary) {
  const auto failure = [this](const std::string& name, const std::string& bytes) -> std::string {
    try {
      openSound(write(name, bytes), {}, nullptr);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "no failure";
  };
  const std::string hint = " libsndfile: apt-get install libsndfile1, on a Mac brew install libsndfile";
  EXPECT_EQ(failure("a.flac", "fLaC...."), "cannot read " + path("a.flac") + ": FLAC needs" + hint);
  EXPECT_EQ(failure("a.m4a", "....ftyp"),
            "cannot read " + path("a.m4a") + ": it is no WAV file, and other sound files need" + hint);
  writeSines("alaw.wav", SF_FORMAT_WAV | SF_FORMAT_ALAW, 8000, 1, 100);
  std::string message;
  try {
    openSound(path("alaw.wav"), {}, nullptr);
  } catch (const std::runtime_error& error) {
    message = error.what();
  }
  EXPECT_EQ(message, "cannot read " + path("alaw.wav") + ": this encoding of WAV needs" + hint);
  static constexpr std::array missing{"/nowhere/libsndfile.so.1"};
  EXPECT_EQ(SndfileLibrary::load(missing), nullptr);
}

TEST_F(SoundFileSourceTest, SamplesAt16KHzAreUnchanged) {
  std::string bytes;
  std::vector<std::int16_t> expected;
  for (int value = -32768; value < 32768; value += 13) {
    expected.push_back(static_cast<std::int16_t>(value));
    bytes += static_cast<char>(value & 0xFF);
    bytes += static_cast<char>((value >> 8) & 0xFF);
  }
  SoundFileSource source(write("samples.raw", bytes));
  EXPECT_EQ(source.length(), static_cast<std::int64_t>(expected.size()));
  EXPECT_EQ(readAll(source), expected);
}

TEST_F(SoundFileSourceTest, FileShorterThanFilterKeepsItsLength) {
  SoundFileSource source(writeSines("short.wav", wave, 48000, 1, 30));
  EXPECT_EQ(readAll(source).size(), 10U);
}

TEST_F(SoundFileSourceTest, ReadAfterEndYieldsNothing) {
  SoundFileSource source(writeSines("sines.wav", wave, 44100, 1, 4410));
  EXPECT_EQ(readAll(source).size(), 1600U);
  std::vector<std::int16_t> more(100);
  EXPECT_EQ(source.read(more), 0U);
}

TEST_F(SoundFileSourceTest, MissingFileIsNamed) {
  EXPECT_EQ(failure(path("none.wav")), "cannot read " + path("none.wav") + ": there is no such file");
}

TEST_F(SoundFileSourceTest, EmptyFileIsNamed) {
  EXPECT_THAT(failure(write("empty.wav", "")), HasSubstr("empty.wav: the file is empty"));
  EXPECT_THAT(failure(write("empty.raw", "")), HasSubstr("empty.raw: the file is empty"));
}

TEST_F(SoundFileSourceTest, FileWithoutAudioIsNamed) {
  EXPECT_THAT(failure(writeSines("header.wav", wave, 16000, 1, 0)), HasSubstr("it contains no audio"));
}

TEST_F(SoundFileSourceTest, TextFileIsRejected) {
  EXPECT_THAT(failure(write("text.wav", "this is no sound at all, whatever its name says")),
              AllOf(HasSubstr("text.wav"), HasSubstr("not a readable sound file")));
}

TEST_F(SoundFileSourceTest, DirectoryIsRejected) {
  EXPECT_THAT(failure(path("")), HasSubstr("it is a directory"));
}

TEST_F(SoundFileSourceTest, HalfSampleIsRejected) {
  EXPECT_THAT(failure(write("odd.raw", "abc")), HasSubstr("an odd number of bytes"));
}

}  // namespace
}  // namespace palaver
