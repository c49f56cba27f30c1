#include "cli/PCM.h"

#include <gtest/gtest.h>

#include "core/Base64Encoding.h"
#include "legacy/LegacyRecognitionChannel.h"

namespace palaver::cli {
namespace {

using Samples = std::vector<std::int16_t>;

TEST(PCMTest, EncodedSamplesAreDecoded) {
  const Samples samples{0, 1, -1, 32767, -32768, 256};
  EXPECT_EQ(decodedPCM(encodePCM(samples)), samples);
  EXPECT_EQ(decodedPCM(""), Samples());
  EXPECT_EQ(decodedPCM("AQAC"), Samples{1});  // half a sample more
  EXPECT_EQ(decodedPCM("no Base64"), std::nullopt);
}

TEST(PCMTest, ThresholdOfVoiceIsThatOfHelper) {
  EXPECT_EQ(voiceThreshold, LegacyRecognitionChannel::voiceRmsThreshold);
}

TEST(PCMTest, LoudnessIsRootMeanSquareOfFullScale) {
  EXPECT_EQ(loudnessOf({}), 0);
  EXPECT_EQ(loudnessOf(Samples(10, 0)), 0);
  EXPECT_EQ(loudnessOf(Samples(1600, -32768)), 1);
  EXPECT_DOUBLE_EQ(loudnessOf(Samples{16384, -16384, 0, 0}), 0.35355339059327379);
}

}  // namespace
}  // namespace palaver::cli
