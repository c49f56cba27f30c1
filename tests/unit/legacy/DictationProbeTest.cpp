#include "legacy/DictationProbe.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "simulator/machine/SimulatedPlatform.h"

namespace palaver {

namespace {

using enum DictationAvailability;

TEST(DictationDisabledError, IsCode1700OfAnyDomain) {
  EXPECT_TRUE(isDictationDisabledError({"kAFAssistantErrorDomain", 1700, ""}));
  EXPECT_TRUE(isDictationDisabledError({"anything", 1700, "No speech detected"}));
  EXPECT_FALSE(isDictationDisabledError({"kAFAssistantErrorDomain", 1701, ""}));
}

TEST(DictationDisabledError, IsTextWithDictationAndDisabledInAnyCase) {
  EXPECT_TRUE(isDictationDisabledError({"any", 201, "Siri and Dictation are disabled"}));
  EXPECT_TRUE(isDictationDisabledError({"any", 0, "Dictation is DISABLED on this Mac"}));
  EXPECT_TRUE(isDictationDisabledError({"any", 0, "disabled: dictation"}));
  EXPECT_FALSE(isDictationDisabledError({"any", 201, "Dictation is off"}));
  EXPECT_FALSE(isDictationDisabledError({"any", 201, "Siri is disabled"}));
  EXPECT_FALSE(isDictationDisabledError({"any", 201, ""}));
}

TEST(DictationAvailability, HasItsNames) {
  for (const auto availability : {enabled, disabled, unknown})
    EXPECT_EQ(dictationAvailability(wireName(availability)), availability);
  EXPECT_EQ(wireName(enabled), "enabled");
  EXPECT_EQ(wireName(disabled), "disabled");
  EXPECT_EQ(wireName(unknown), "unknown");
  EXPECT_EQ(dictationAvailability("Enabled"), std::nullopt);
  EXPECT_EQ(dictationAvailability(""), std::nullopt);
}

// A recognition service with one recognizer. The test calls its handler.
class HandDrivenRecognition final : public SpeechRecognition {
 public:
  ResultHandler handler;
  std::function<void()> onCancel = [] {};
  bool hasSetting = true;

  AuthorizationStatus authorizationStatus() const override { return AuthorizationStatus::authorized; }
  void requestAuthorization(std::function<void(AuthorizationStatus)>) override {}
  bool hasDictationSetting() const override { return hasSetting; }
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view) override {
    return std::make_unique<Recognizer>(*this);
  }

 private:
  class Request final : public RecognitionRequest {
   public:
    void append(std::shared_ptr<const PCMBuffer>) override {}
    void endAudio() override {}
  };
  class Task final : public RecognitionTask {
   public:
    explicit Task(HandDrivenRecognition& service) : service_(service) {}
    void cancel() override { service_.onCancel(); }

   private:
    HandDrivenRecognition& service_;
  };
  class Recognizer final : public SpeechRecognizer {
   public:
    explicit Recognizer(HandDrivenRecognition& service) : service_(service) {}
    bool supportsOnDeviceRecognition() const override { return true; }
    std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions) override {
      return std::make_shared<Request>();
    }
    std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>&,
                                                     ResultHandler resultHandler) override {
      service_.handler = std::move(resultHandler);
      return std::make_unique<Task>(service_);
    }

   private:
    HandDrivenRecognition& service_;
  };
};

// Has no audio format at all, so nothing may ask for a buffer.
class NoAudioFormats final : public AudioBuffers {
 public:
  std::optional<AudioFormat> makeFormat(CommonFormat, double, std::uint32_t, bool) override {
    return std::nullopt;
  }
  std::shared_ptr<PCMBuffer> makeBuffer(const AudioFormat&, std::uint32_t) override {
    ADD_FAILURE() << "a buffer without a format";
    return nullptr;
  }
};

class DictationProbeTest : public testing::Test {
 protected:
  static RecognitionAnswer failure(PlatformError error) { return {std::nullopt, std::move(error)}; }
  static RecognitionAnswer result(bool isFinal) { return {RecognitionResult{"", {}, isFinal}, std::nullopt}; }

  void call(const RecognitionAnswer& answer) { recognition_.handler(answer.result, answer.error); }

  // Calls the handler at this time (ms).
  void answer(double time, const RecognitionAnswer& answer) {
    machine_.scheduler.schedule(time, Timeline::Context::background, this, [this, answer] { call(answer); });
  }

  // Calls the handler twice at this time (ms), before the waiting probe can read the first outcome.
  void answerTwice(double time, const RecognitionAnswer& first, const RecognitionAnswer& second) {
    machine_.scheduler.schedule(time, Timeline::Context::background, this, [this, first, second] {
      call(first);
      call(second);
    });
  }

  // Runs a test with a probe on a machine with this recognition service.
  void with(const std::function<void(DictationProbe&)>& test) {
    machine_.run(
        [&](Platform& all) {
          struct : Platform {
            AudioBuffers& audioBuffers;
            SpeechRecognition& speechRecognition;
          } parts{all, audioBuffers_ ? *audioBuffers_ : all.audioBuffers, recognition_};
          Platform platform = platformOf(parts);
          DictationProbe probe(platform);
          test(probe);
        },
        1e9);
  }

  SimulatedPlatform machine_;
  HandDrivenRecognition recognition_;
  AudioBuffers* audioBuffers_ = nullptr;  // null: the machine's
};

TEST_F(DictationProbeTest, SystemWithoutSettingIsNotProbed) {
  recognition_.hasSetting = false;
  with([this](DictationProbe& probe) {
    EXPECT_EQ(probe.availability("ja-JP"), unknown);
    EXPECT_FALSE(recognition_.handler);
  });
}

TEST_F(DictationProbeTest, DisabledBeforeFinalMeansDisabled) {
  answer(1, failure(dictationDisabledError()));
  answer(1, result(true));
  with([](DictationProbe& probe) { EXPECT_EQ(probe.availability("ja-JP"), disabled); });
}

TEST_F(DictationProbeTest, FinalBeforeDisabledMeansEnabled) {
  answer(1, result(true));
  answer(1, failure(dictationDisabledError()));
  with([](DictationProbe& probe) { EXPECT_EQ(probe.availability("ja-JP"), enabled); });
}

TEST_F(DictationProbeTest, SecondOutcomeWithinOneWaitIsIgnored) {
  answerTwice(1, result(true), failure(dictationDisabledError()));
  with([](DictationProbe& probe) { EXPECT_EQ(probe.availability("ja-JP"), enabled); });
}

TEST_F(DictationProbeTest, SecondOutcomeWithinOneWaitLeavesDisabled) {
  answerTwice(1, failure(dictationDisabledError()), result(true));
  with([](DictationProbe& probe) { EXPECT_EQ(probe.availability("ja-JP"), disabled); });
}

TEST_F(DictationProbeTest, EmptyOrPartialCallIsNoOutcome) {
  answer(1, {});
  answer(2, result(false));
  answer(3, failure(dictationDisabledError()));
  with([this](DictationProbe& probe) {
    EXPECT_EQ(probe.availability("ja-JP"), disabled);
    EXPECT_EQ(machine_.scheduler.now(), 3);
  });
}

TEST_F(DictationProbeTest, ErrorWithResultCounts) {
  RecognitionAnswer both = failure(dictationDisabledError());
  both.result = RecognitionResult{"", {}, true};
  answer(1, both);
  with([](DictationProbe& probe) { EXPECT_EQ(probe.availability("ja-JP"), disabled); });
}

TEST_F(DictationProbeTest, OutcomeDuringCancellationCounts) {
  recognition_.onCancel = [this] { call(failure(dictationDisabledError())); };
  with([](DictationProbe& probe) { EXPECT_EQ(probe.availability("ja-JP"), disabled); });
}

TEST_F(DictationProbeTest, CallAfterVerdictIsIgnored) {
  answer(1, result(true));
  answer(5000, failure(dictationDisabledError()));
  with([this](DictationProbe& probe) {
    EXPECT_EQ(probe.availability("ja-JP"), enabled);
    machine_.scheduler.runSlice(10000);
    EXPECT_EQ(machine_.scheduler.now(), 10001);
    EXPECT_EQ(probe.cachedVerdict(), enabled);
  });
}

TEST(DictationProbeLimits, AreTheDocumentedTimes) {
  EXPECT_EQ(dictationProbeTimeout, 2500);
  EXPECT_EQ(dictationRecheckInterval, 30000);
}

TEST_F(DictationProbeTest, UnansweredProbeTimesOut) {
  with([this](DictationProbe& probe) {
    EXPECT_EQ(probe.cachedVerdict(), std::nullopt);
    EXPECT_EQ(probe.availability("ja-JP", 100), unknown);
    EXPECT_GE(machine_.scheduler.now(), 100);
    EXPECT_LE(machine_.scheduler.now(), 120);
    EXPECT_EQ(probe.cachedVerdict(), unknown);
    EXPECT_EQ(probe.availability("ja-JP"), unknown);  // cached, not probed again
    EXPECT_LE(machine_.scheduler.now(), 120);
  });
}

TEST_F(DictationProbeTest, MissingAudioFormatStartsNoRecognition) {
  NoAudioFormats none;
  audioBuffers_ = &none;
  with([this](DictationProbe& probe) {
    EXPECT_EQ(probe.availability("ja-JP"), unknown);
    EXPECT_FALSE(recognition_.handler);
  });
}

TEST_F(DictationProbeTest, RecordedVerdictHolds30sButCacheNeverExpires) {
  with([this](DictationProbe& probe) {
    probe.recordDisabled();
    EXPECT_EQ(probe.availability("ja-JP"), disabled);
    EXPECT_FALSE(recognition_.handler);
    machine_.scheduler.runSlice(29999);
    EXPECT_EQ(probe.availability("ja-JP"), disabled);
    EXPECT_FALSE(recognition_.handler);
    machine_.scheduler.runSlice(1);
    EXPECT_EQ(probe.cachedVerdict(), disabled);
    answer(1, result(true));
    EXPECT_EQ(probe.availability("ja-JP"), enabled);
    EXPECT_TRUE(recognition_.handler);
    probe.recordDisabled();
    EXPECT_EQ(probe.cachedVerdict(), disabled);
  });
}

}  // namespace

}  // namespace palaver
