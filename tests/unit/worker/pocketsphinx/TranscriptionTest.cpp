#include "worker/pocketsphinx/Transcription.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "tests/support/Recording.h"

namespace palaver {
namespace {

const std::filesystem::path testData = "/usr/share/pocketsphinx/test/data";

// Returns quiet noise, like a microphone in a quiet room. Deterministic.
std::vector<std::int16_t> quiet(double seconds, double amplitude = 20) {
  std::mt19937 random(1);
  std::normal_distribution<double> noise(0, amplitude);
  std::vector<std::int16_t> samples(static_cast<std::size_t>(seconds * modelSampleRate));
  for (auto& sample : samples) sample = static_cast<std::int16_t>(noise(random));
  return samples;
}

class TranscriptionTest : public testing::Test {
 protected:
  static void process(Transcription& transcription, std::span<const std::int16_t> samples) {
    for (; !samples.empty(); samples = samples.subspan(std::min<std::size_t>(1600, samples.size())))
      transcription.process(samples.first(std::min<std::size_t>(1600, samples.size())));
  }

  Decoder decoder_{std::make_shared<const BaseLanguageModel>(SpeechModelFiles(systemModelRoot, "en-us"))};
};

TEST_F(TranscriptionTest, FinishYieldsWordsAndTimes) {
  Transcription transcription(decoder_);
  process(transcription, readRecording(testData / "goforward.raw"));
  transcription.finish();
  EXPECT_EQ(transcription.text(), "go forward ten meters");
  const auto segments = transcription.segments();
  ASSERT_EQ(segments.size(), 4U);
  EXPECT_EQ(segments[0].substring, "go");
  // The times were determined by ear and from the waveform, to 100 ms.
  EXPECT_NEAR(segments[0].timestamp, 0.46, 0.1);
  EXPECT_NEAR(segments[3].timestamp + segments[3].duration, 2.11, 0.1);
}

// The model's initial cepstral mean fits this voice and microphone badly, so the first decoding is wrong.
TEST_F(TranscriptionTest, UnknownVoiceIsRedecodedInPauseAfterWords) {
  const auto speech = readRecording(testData / "cards/001.wav");
  Transcription transcription(decoder_);
  process(transcription, speech);
  EXPECT_NE(transcription.text(), "ten of clubs");
  process(transcription, quiet(0.6));
  EXPECT_EQ(transcription.text(), "ten of clubs") << "before the end of the audio";
  transcription.finish();
  EXPECT_EQ(transcription.text(), "ten of clubs");
}

TEST_F(TranscriptionTest, VoiceIsKnownAfter8sOfSpeech) {
  const auto speech = readRecording(testData / "librivox/sense_and_sensibility_01_austen_64kb-0870.wav");
  ASSERT_GT(std::ssize(speech), 4 * modelSampleRate);
  ASSERT_LT(std::ssize(speech), 8 * modelSampleRate);
  for (const bool isKnown : {false, false, true}) {
    decoder_.startUtterance();
    EXPECT_EQ(decoder_.knowsVoice(), isKnown);
    decoder_.process(speech);
    EXPECT_EQ(decoder_.knowsVoice(), isKnown) << "the state changes between utterances only";
    decoder_.redecode(speech);
    EXPECT_EQ(decoder_.knowsVoice(), isKnown) << "re-decoding adds no speech";
    EXPECT_FALSE(decoder_.segments().empty());
    decoder_.endUtterance();
  }
}

TEST_F(TranscriptionTest, SilenceYieldsNoText) {
  Transcription transcription(decoder_);
  process(transcription, quiet(3));
  transcription.finish();
  EXPECT_EQ(transcription.text(), "");
  EXPECT_TRUE(transcription.segments().empty());
}

TEST_F(TranscriptionTest, WordsAfterLongSilenceAreCompleteAndTimedFromFirstSample) {
  const auto speech = readRecording(testData / "goforward.raw");
  struct Silence {
    double seconds;
    double amplitude;  // of 32768
  };
  // Undecoded silences and decoded noise make the decoder start utterances at different positions in and
  // before the speech.
  for (const auto [seconds, amplitude] :
       {Silence{0.05, 20}, {1.0, 20}, {31.0, 20}, {600.0, 20}, {9.7, 110}, {10.1, 110}}) {
    Transcription transcription(decoder_);
    process(transcription, quiet(seconds, amplitude));
    EXPECT_EQ(transcription.text(), "");
    process(transcription, speech);
    transcription.finish();
    EXPECT_EQ(transcription.text(), "go forward ten meters") << seconds;
    ASSERT_FALSE(transcription.segments().empty());
    EXPECT_NEAR(transcription.segments().front().timestamp, seconds + 0.46, 0.1) << seconds;
  }
}

TEST_F(TranscriptionTest, QuietAfterNonWordSoundLosesNothing) {
  const auto speech = readRecording(testData / "goforward.raw");
  Transcription transcription(decoder_);
  process(transcription, quiet(0.3, 150));
  process(transcription, quiet(5));
  process(transcription, speech);
  transcription.finish();
  EXPECT_EQ(transcription.text(), "go forward ten meters");
  ASSERT_FALSE(transcription.segments().empty());
  EXPECT_NEAR(transcription.segments().front().timestamp, 5.3 + 0.46, 0.1);
}

TEST_F(TranscriptionTest, LongRequestIsSplitSeamlessly) {
  std::vector<std::int16_t> speech;
  for (const char* name :
       {"0880", "0930", "0880", "0930", "0880", "0930", "0880", "0930", "0880", "0930", "0880", "0930"}) {
    const auto sentence = readRecording(
        testData / "librivox" / ("sense_and_sensibility_01_austen_64kb-" + std::string(name) + ".wav"));
    speech.insert(speech.end(), sentence.begin(), sentence.end());
  }
  ASSERT_GT(std::ssize(speech), Transcription::pauseLimit);
  Transcription transcription(decoder_);
  process(transcription, speech);
  transcription.finish();
  const std::string text = transcription.text();
  const auto count = [&text](const std::string& words) {
    int found = 0;
    for (auto at = text.find(words); at != std::string::npos; at = text.find(words, at + 1)) ++found;
    return found;
  };
  EXPECT_EQ(count("he might even have been made amiable"), 6) << text;
  EXPECT_EQ(count("young man"), 6) << text;

  std::string joined;
  double previousEnd = 0;
  for (const auto& segment : transcription.segments()) {
    EXPECT_GE(segment.timestamp, previousEnd - 0.001) << segment.substring;
    previousEnd = segment.timestamp + segment.duration;
    joined += (joined.empty() ? "" : " ") + segment.substring;
  }
  EXPECT_EQ(joined, text);
  EXPECT_LE(previousEnd, static_cast<double>(speech.size()) / modelSampleRate);
}

TEST_F(TranscriptionTest, SteadyNoiseYieldsNoWordOver1500ms) {
  Transcription transcription(decoder_);
  process(transcription, quiet(15, 6000));
  transcription.finish();
  for (const auto& segment : transcription.segments()) EXPECT_LE(segment.duration, 1.5) << segment.substring;
}

TEST_F(TranscriptionTest, AbandonedTranscriptionLeavesDecoderUsable) {
  const auto speech = readRecording(testData / "goforward.raw");
  {
    Transcription transcription(decoder_);
    process(transcription, std::span(speech).first(16000));
  }
  Transcription transcription(decoder_);
  process(transcription, speech);
  transcription.finish();
  EXPECT_EQ(transcription.text(), "go forward ten meters");
}

TEST_F(TranscriptionTest, VeryShortAudioYieldsNoText) {
  for (const std::size_t samples : {0U, 1U, 159U, 800U, 1280U}) {
    Transcription transcription(decoder_);
    transcription.process(std::vector<std::int16_t>(samples));
    transcription.finish();
    EXPECT_EQ(transcription.text(), "") << samples;
  }
}

}  // namespace
}  // namespace palaver
