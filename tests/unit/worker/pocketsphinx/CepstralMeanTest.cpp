#include "worker/pocketsphinx/CepstralMean.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

namespace palaver {
namespace {

using testing::ElementsAre;

class CepstralMeanTest : public testing::Test {
 protected:
  // Adds frames with these coefficients.
  void add(std::int32_t frames, mfcc_t first, mfcc_t second) {
    const auto count = static_cast<mfcc_t>(frames);
    mean_.add(std::array{count * first, count * second}, frames);
  }

  CepstralMean mean_{std::array<mfcc_t, 2>{40, -5}};
};

TEST_F(CepstralMeanTest, StartsAtInitialMean) {
  EXPECT_THAT(mean_.mean(), ElementsAre(40, -5));
  mean_.confirm();
  EXPECT_THAT(mean_.mean(), ElementsAre(40, -5));
  add(10, 1, 2);
  EXPECT_THAT(mean_.mean(), ElementsAre(40, -5)) << "the frames are not confirmed as speech";
  EXPECT_EQ(mean_.speechFrames(), 0);
}

TEST_F(CepstralMeanTest, SpeechReplacesMeanFromFirstFrame) {
  add(10, 1, 2);
  add(30, 5, 6);
  mean_.confirm();
  EXPECT_THAT(mean_.mean(), ElementsAre(4, 5));
  add(40, 8, 9);
  mean_.confirm();
  EXPECT_THAT(mean_.mean(), ElementsAre(6, 7));
  EXPECT_EQ(mean_.speechFrames(), 80);
}

TEST_F(CepstralMeanTest, SilenceDoesNotChangeMean) {
  add(50, 30, 2);
  mean_.confirm();
  add(10000, -30, 0);
  mean_.discard();
  mean_.confirm();
  EXPECT_THAT(mean_.mean(), ElementsAre(30, 2));
  EXPECT_EQ(mean_.speechFrames(), 50);
}

TEST_F(CepstralMeanTest, OldSpeechCountsLessThanNew) {
  add(10000, 20, 0);
  mean_.confirm();
  EXPECT_THAT(mean_.mean(), ElementsAre(20, 0));
  add(500, 30, 10);
  mean_.confirm();
  EXPECT_THAT(mean_.mean(), ElementsAre(25, 5));
  EXPECT_EQ(mean_.speechFrames(), 10500);
}

}  // namespace
}  // namespace palaver
