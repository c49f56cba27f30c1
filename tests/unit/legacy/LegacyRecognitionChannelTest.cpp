#include "legacy/LegacyRecognitionChannel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "simulator/scenario/SyntheticAudio.h"
#include "tests/support/ConversationTest.h"

namespace palaver {

namespace {

double loudness(const std::vector<std::int16_t>& samples) {
  PCMBuffer buffer({CommonFormat::int16, 16000, 1, false}, static_cast<std::uint32_t>(samples.size()));
  buffer.setFrameLength(static_cast<std::uint32_t>(samples.size()));
  std::copy(samples.begin(), samples.end(), buffer.int16ChannelData());
  return LegacyRecognitionChannel::normalizedRms(buffer);
}

TEST(NormalizedRms, FullScaleIs1) {
  EXPECT_EQ(loudness(std::vector<std::int16_t>(1600, -32768)), 1.0);
}

TEST(NormalizedRms, SilenceAndEmptyBufferAre0) {
  EXPECT_EQ(loudness(std::vector<std::int16_t>(1600, 0)), 0.0);
  EXPECT_EQ(loudness({}), 0.0);
}

TEST(NormalizedRms, BufferWithout16BitSamplesIs0) {
  PCMBuffer buffer({CommonFormat::float32, 16000, 1, false}, 4);
  buffer.setFrameLength(4);
  std::fill_n(buffer.floatChannelData(), 4, 1.0F);
  EXPECT_EQ(LegacyRecognitionChannel::normalizedRms(buffer), 0.0);
}

TEST(NormalizedRms, CountsOnlyFramesInUse) {
  PCMBuffer buffer({CommonFormat::int16, 16000, 1, false}, 4);
  std::fill_n(buffer.int16ChannelData(), 4, std::int16_t{16384});
  buffer.int16ChannelData()[3] = 0;
  buffer.setFrameLength(3);
  EXPECT_EQ(LegacyRecognitionChannel::normalizedRms(buffer), 0.5);
}

// One full-scale sample among 15625 has a root mean square of exactly 1/125.
TEST(NormalizedRms, ReachesThresholdExactly) {
  std::vector<std::int16_t> samples(15625, 0);
  samples[7000] = -32768;
  EXPECT_EQ(loudness(samples), LegacyRecognitionChannel::voiceRmsThreshold);
  samples[7000] = 32767;
  EXPECT_LT(loudness(samples), LegacyRecognitionChannel::voiceRmsThreshold);
  EXPECT_LT(loudness(samplesOfLoudness(0.0079, 1600)), LegacyRecognitionChannel::voiceRmsThreshold);
}

// The reference sums the squares one by one in doubles, as defined.
TEST(NormalizedRms, MatchesDefinitionForRandomSamples) {
  std::uint32_t state = 1;
  for (std::size_t count = 1; count < 200; ++count) {
    std::vector<std::int16_t> samples;
    double sum = 0;
    for (std::size_t i = 0; i < count; ++i) {
      state = state * 1664525 + 1013904223;
      samples.push_back(static_cast<std::int16_t>(state >> 16));
      sum += (samples.back() / 32768.0) * (samples.back() / 32768.0);
    }
    EXPECT_EQ(loudness(samples), std::sqrt(sum / static_cast<double>(count)));
  }
}

TEST(NoSpeechError, IsCode1110OrMatchingText) {
  EXPECT_TRUE(LegacyRecognitionChannel::isNoSpeechError({"any", 1110, ""}));
  EXPECT_TRUE(LegacyRecognitionChannel::isNoSpeechError({"any", 5, "There was NO SPEECH in it"}));
  EXPECT_FALSE(LegacyRecognitionChannel::isNoSpeechError({"any", 203, "Retry"}));
  EXPECT_FALSE(LegacyRecognitionChannel::isNoSpeechError({"any", 1700, "no voice"}));
}

using LegacyConversation = ConversationTest;

TEST_F(LegacyConversation, InvalidUTF8TextIsDroppedWithDiagnostic) {
  host(100, {{"type", "session.start"}, {"sessionId", "a"}});
  audio(1000);
  partial(1100, "broken \xFF");
  partial(1200, "whole");
  host(2000, {{"type", "shutdown"}});
  EXPECT_EQ(play(), 0);
  ASSERT_EQ(events("transcript.partial").size(), 1u);
  EXPECT_EQ(events("transcript.partial")[0].at("text"), "whole");
  EXPECT_TRUE(errorOutput().starts_with("Failed to encode helper event: ")) << errorOutput();
}

TEST_F(LegacyConversation, EveryUtteranceHasUniqueUUID) {
  host(100, {{"type", "session.start"}, {"sessionId", "a"}});
  for (int i = 1; i <= 50; ++i) {
    audio(i * 1000);
    final(i * 1000 + 100, "text");
  }
  EXPECT_EQ(play(), std::nullopt);
  std::vector<std::string> ids;
  for (const auto& event : events("transcript.final")) ids.push_back(event.at("utteranceId"));
  ASSERT_EQ(ids.size(), 50u);
  for (const auto& id : ids) {
    EXPECT_EQ(id.size(), 36u);
    EXPECT_EQ(id.find_first_not_of("0123456789ABCDEF-"), std::string::npos) << id;
  }
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(std::unique(ids.begin(), ids.end()), ids.end());
}

// Two speakers talk at the same time and pause after each sentence.
TEST_F(LegacyConversation, TwoMinutesYieldOneFinalPerUtterance) {
  settings.recognition.answersAfterEndAudio = 300;
  settings.recognition.utterances = {{{{200, "one"}, {800, "one two"}}, "one two three"}};
  host(100, {{"type", "session.start"}, {"sessionId", "a"}});
  constexpr int sentences = 20;  // each with 3 s of speech and 3 s of silence
  for (int i = 0; i < sentences; ++i)
    for (int chunk = 0; chunk < 60; ++chunk) {
      const double time = 1000.0 + i * 6000.0 + chunk * 100.0;
      audio(time, chunk < 30 ? 0.1 : 0, "remote");
      audio(time + 50, chunk < 30 ? 0.1 : 0, "self");
    }
  at(1000.0 + sentences * 6000.0, [this] { machine().standardInput.end(); });
  EXPECT_EQ(play(), 0);
  const auto finals = events("transcript.final");
  EXPECT_EQ(finals.size(), 2u * sentences);
  for (const auto& event : finals) EXPECT_EQ(event.at("text"), "one two three");
  EXPECT_EQ(events("transcript.partial").size(), 4u * sentences);
  EXPECT_EQ(events("helper.error").size(), 0u);
}

}  // namespace

}  // namespace palaver
