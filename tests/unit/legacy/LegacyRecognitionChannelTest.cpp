#include "legacy/LegacyRecognitionChannel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "core/JSONLineWriter.h"
#include "simulator/machine/SimulatedPlatform.h"
#include "simulator/scenario/SyntheticAudio.h"
#include "tests/support/ConversationTest.h"
#include "tests/support/RecordedAnswers.h"

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

// Drives one channel without a backend. Its session is "a", its source "remote", its locale "ja-JP".
class LegacyRecognitionChannelTest : public testing::Test {
 protected:
  using Samples = std::vector<std::int16_t>;

  // Runs a step on the main thread at a time (ms), in the order of the calls.
  void at(double time, std::function<void()> step) { steps_.emplace_back(time, std::move(step)); }
  // Appends 100 ms that begin with this sample, captured at this time.
  void append(double time, double rms, std::int16_t firstSample) {
    at(time, [this, time, rms, firstSample] {
      auto samples = samplesOfLoudness(rms, 1600);
      samples[0] = firstSample;
      channel->append(makeSpeechBuffer(samples), 0, time);
    });
  }
  // Lets the newest task answer.
  void answer(double time, const RecognitionAnswer& answer) {
    at(time, [this, answer] { EXPECT_TRUE(machine.speechRecognition.answer(TaskChoice(), answer)); });
  }
  void partial(double time, const std::string& text) {
    answer(time, {RecognitionResult{text, {}, false}, {}});
  }
  void final(double time, const std::string& text) { answer(time, {RecognitionResult{text, {}, true}, {}}); }

  // Creates the channel at 0 ms, runs the steps and returns the events.
  std::vector<nlohmann::json> run() {
    machine.run(
        [this](Platform& platform) {
          JSONLineWriter writer(platform.clock, platform.standardOutput, platform.standardError);
          channel =
              LegacyRecognitionChannel::make(platform, "a", AudioSource::remote, "ja-JP", {}, writer, [] {});
          for (const auto& step : steps_)
            machine.scheduler.schedule(step.first, Timeline::Context::background, this,
                                       [&platform, &step] { platform.mainQueue.async(step.second); });
          platform.mainQueue.run();
        },
        1e9);
    std::vector<nlohmann::json> events;
    for (const auto& line : machine.standardOutput.lines())
      events.push_back(nlohmann::json::parse(line.text));
    return events;
  }
  std::vector<RecordedRequest> requests() const { return machine.speechRecognition.requests(); }
  static Samples firstSamples(const RecordedRequest& request) {
    Samples samples;
    for (const auto& buffer : request.buffers) samples.push_back(buffer.firstSample);
    return samples;
  }

  // Returns domain, code and text of the error with which the channel cannot be created.
  std::string errorOfMaking(void (*change)(RecognitionState&)) {
    auto state = machine.speechRecognition.state();
    change(state);
    machine.speechRecognition.setState(state);
    try {
      run();
    } catch (const PlatformError& error) {
      return error.domain() + "#" + std::to_string(error.code()) + " " + error.what();
    }
    return "none";
  }

  SimulatedPlatform machine;
  std::shared_ptr<LegacyRecognitionChannel> channel;

 private:
  std::vector<std::pair<double, std::function<void()>>> steps_;
};

TEST_F(LegacyRecognitionChannelTest, MissingPermissionIsError1) {
  EXPECT_EQ(errorOfMaking([](auto& state) { state.authorization = AuthorizationStatus::denied; }),
            "PalaverSTT#1 Speech Recognition permission is not authorized");
}

TEST_F(LegacyRecognitionChannelTest, UnsupportedLocaleIsError2) {
  EXPECT_EQ(errorOfMaking([](auto& state) { state.locales.clear(); }),
            "PalaverSTT#2 Unsupported recognition locale: ja-JP");
}

TEST_F(LegacyRecognitionChannelTest, MissingModelIsError3) {
  EXPECT_EQ(errorOfMaking([](auto& state) { state.locales["ja-JP"] = false; }),
            "PalaverSTT#3 The on-device recognition model for ja-JP is not installed");
}

TEST_F(LegacyRecognitionChannelTest, DestructionCancelsRunningTask) {
  at(5, [this] { channel.reset(); });
  run();
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_EQ(requests()[0].cancelledAt, 5);
}

TEST_F(LegacyRecognitionChannelTest, CancelledFinishingUtteranceLeavesNothingBehind) {
  append(1000, 0.1, 1);
  partial(1100, "one");
  append(1900, 0, 2);    // closes the utterance
  append(2000, 0.1, 3);  // held back
  at(2100, [this] { channel->cancel(true); });
  append(2200, 0, 4);
  append(2300, 0.1, 5);
  partial(2400, "two");
  final(2500, "two.");
  const auto events = run();
  ASSERT_EQ(requests().size(), 2u);
  EXPECT_EQ(requests()[0].cancelledAt, 2100);
  EXPECT_EQ(requests()[1].madeAt, 2300);
  EXPECT_EQ(firstSamples(requests()[1]), (Samples{4, 5}));
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(events[0].at("text"), "one");
  EXPECT_EQ(events[1].at("text"), "two");
  EXPECT_EQ(events[1].at("startedAt"), 2200);
  EXPECT_NE(events[1].at("utteranceId"), events[0].at("utteranceId"));
  EXPECT_EQ(events[2].at("text"), "two.");
}

TEST_F(LegacyRecognitionChannelTest, CancelledOpenUtteranceTakesNoMoreAudio) {
  append(1000, 0.1, 1);
  at(1100, [this] { channel->cancel(true); });
  append(1200, 0, 2);
  run();
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_EQ(firstSamples(requests()[0]), Samples{1});
  EXPECT_EQ(requests()[0].droppedBuffers, 0u);
}

TEST_F(LegacyRecognitionChannelTest, CancelDropsPreroll) {
  final(1000, "one");
  append(1100, 0, 1);
  at(1200, [this] { channel->cancel(true); });
  append(1300, 0.1, 2);
  run();
  ASSERT_EQ(requests().size(), 2u);
  EXPECT_EQ(firstSamples(requests()[1]), Samples{2});
}

TEST_F(LegacyRecognitionChannelTest, LateResultsCountUnlessDiscarded) {
  at(1000, [this] { channel->cancel(false); });
  partial(1100, "late");
  at(1200, [this] { channel->cancel(true); });
  partial(1300, "too late");
  const auto events = run();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].at("text"), "late");
}

TEST_F(LegacyRecognitionChannelTest, FinishedChannelIgnoresLateResults) {
  append(1000, 0.1, 1);
  partial(1100, "one");
  at(1200, [this] { channel->finish(); });
  final(1300, "too late");
  append(1400, 0, 2);
  const auto events = run();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[1].at("text"), "one");
  EXPECT_EQ(events[1].at("endpointing").at("reason"), "flush");
  EXPECT_EQ(requests()[0].endAudioAt, 1200);
  EXPECT_EQ(requests()[0].cancelledAt, 1200);
}

using LegacyConversation = ConversationTest;

// The recognizer calls back after the command has been queued and before it is handled.
TEST_F(LegacyConversation, StepQueuedBehindMutingStillEndsItsTask) {
  settings.environment = {{"PALAVER_STT_DEBUG", "1"}};
  host(100, {{"type", "session.start"}, {"sessionId", "a"}});
  audio(1000);
  answers(1200, {std::nullopt, PlatformError("domain", 203, "Retry")});
  host(1200, {{"type", "source.suppress"}, {"sessionId", "a"}, {"source", "remote"}, {"suppressed", true}});
  EXPECT_EQ(play(), std::nullopt);
  EXPECT_EQ(errorOutput(),
            "[stt-debug] task end final=false error=domain#203 Retry lastText= emitted=false\n");
  EXPECT_EQ(events("helper.error").size(), 0u);
}

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
