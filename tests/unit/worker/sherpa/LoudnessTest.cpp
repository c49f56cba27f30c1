#include "worker/sherpa/Loudness.h"

#include <gtest/gtest.h>

#include "tests/support/Tones.h"

namespace palaver {
namespace {

constexpr std::int64_t ms = 16;

TEST(Loudness, VoiceHasStartAndEnd) {
  Loudness loudness;
  loudness.append(makeTones({{0, 500}, {300, 400}, {0, 300}}));
  EXPECT_EQ(loudness.voiceStart(0), 500 * ms);
  EXPECT_EQ(loudness.voiceEnd(0), 900 * ms);
  EXPECT_EQ(loudness.voiced(0, loudness.length()), 400 * ms);
}

TEST(Loudness, SilenceHasNoVoice) {
  Loudness loudness;
  loudness.append(makeTones({{0, 500}}));
  EXPECT_EQ(loudness.voiceStart(0), loudness.length());
  EXPECT_EQ(loudness.voiceEnd(100), 100);
}

TEST(Loudness, LevelIsThatOfFaintNoise) {
  Loudness loudness;
  loudness.append(makeTones({{300, 100, 0.003}}));  // RMS 0.0021
  EXPECT_EQ(loudness.voiced(0, 100 * ms), 0);
  loudness.append(makeTones({{300, 100, 0.006}}));  // RMS 0.0042
  EXPECT_EQ(loudness.voiced(0, 200 * ms), 100 * ms);
}

TEST(Loudness, QuietestPlaceIsMiddleOfLongestPause) {
  Loudness loudness;
  loudness.append(makeTones({{300, 500}, {0, 200}, {300, 500}, {0, 400}, {300, 500}}));
  EXPECT_NEAR(static_cast<double>(loudness.quietestPlace(0, loudness.length())), 1400 * ms, 20 * ms);
}

TEST(Loudness, QuietestPlaceWithoutPauseIsFaintestSound) {
  Loudness loudness;
  loudness.append(makeTones({{300, 500}, {300, 100, 0.05}, {300, 500}}));
  EXPECT_NEAR(static_cast<double>(loudness.quietestPlace(0, loudness.length())), 550 * ms, 20 * ms);
}

TEST(Loudness, ForgottenAudioCountsAsQuiet) {
  Loudness loudness;
  loudness.append(makeTones({{300, 1000}}));
  loudness.forgetBefore(400 * ms);
  EXPECT_EQ(loudness.voiced(0, loudness.length()), 600 * ms);
  EXPECT_EQ(loudness.voiceStart(0), 400 * ms);
}

}  // namespace
}  // namespace palaver
