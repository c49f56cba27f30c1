// Runs the SpeechRecognition contract against the macOS implementation, over a simulated recognizer and over
// the real Linux one. The main thread uses the real run loop.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#include "platform/audio/SndfileAudioFile.h"
#include "platform/audio/SpeexAudioConverter.h"
#include "platform/macos/AppleSpeechRecognition.h"
#include "simulator/ThreadedTimeline.h"
#include "simulator/machine/Scheduler.h"
#include "simulator/machine/SimulatedSpeechRecognition.h"
#include "tests/apple/support/MainRunLoop.h"
#include "tests/support/Recording.h"
#include "tests/support/SpeechRecognitionContract.h"
#include "worker/pocketsphinx/PocketSphinxRecognition.h"

namespace palaver {
namespace {

const std::filesystem::path testData = "/usr/share/pocketsphinx/test/data";

RecognitionState answering() {
  RecognitionState state;
  state.answersAfterEndAudio = 100;
  state.utterances = {{{{200, "one"}, {500, "one two"}}, "one two three"}};
  return state;
}

std::vector<std::int16_t> sound() {
  return std::vector<std::int16_t>(16000, 3000);
}

// Builds the frameworks over a recognition and the adapter over the frameworks.
class AppleSubject : public SpeechRecognitionContractSubject {
 public:
  explicit AppleSubject(SpeechRecognition& recognition)
      : behaviour_(recognition, converters_, files_, {15, 0, 0}) {}
  // Drains the main dispatch queue, whose blocks belong to this subject.
  ~AppleSubject() override { drainMainQueue(); }

  SpeechRecognition& recognition() override { return recognition_; }
  void deliver() override { drainMainQueue(); }

 private:
  SpeexAudioConverters converters_;
  SndfileAudioFiles files_;
  FrameworkBehaviour behaviour_;
  AppleSpeechRecognition recognition_;
};

// Runs in virtual time.
class SimulatedAppleSubject final : public SpeechRecognitionContractSubject {
 public:
  ~SimulatedAppleSubject() override { scheduler_.clear(); }

  SpeechRecognition& recognition() override { return apple_.recognition(); }
  std::string locale() override { return "ja-JP"; }
  std::vector<std::int16_t> speech() override { return sound(); }
  void deliver() override {
    constexpr double slice = 10, longEnough = 1000;  // ms
    for (const double end = scheduler_.now() + longEnough; scheduler_.now() < end;)
      scheduler_.runSlice(slice);
    apple_.deliver();
  }

 private:
  class Subject final : public AppleSubject {
   public:
    using AppleSubject::AppleSubject;
    std::string locale() override { return {}; }
    std::vector<std::int16_t> speech() override { return {}; }
  };

  Scheduler scheduler_;
  SimulatedSpeechRecognition simulated_{scheduler_, answering()};
  Subject apple_{simulated_};
};

// Runs in real time with a recognizer that answers on its own threads.
class ThreadedAppleSubject final : public AppleSubject {
 public:
  ThreadedAppleSubject() : AppleSubject(world().recognition) {}
  ~ThreadedAppleSubject() override { world_.reset(); }

  std::string locale() override { return "ja-JP"; }
  std::vector<std::int16_t> speech() override { return sound(); }
  void deliverUntil(const std::function<bool()>& condition) override { serveMainQueueUntil(condition); }

 private:
  struct World {
    ThreadedTimeline timeline{2};
    SimulatedSpeechRecognition recognition{timeline, permitting()};
  };
  // Answers the permission request inside the call, because a later answer may outlive the test.
  static RecognitionState permitting() {
    auto state = answering();
    state.authorizationAnswer = {.status = AuthorizationStatus::authorized, .after = std::nullopt};
    return state;
  }
  World& world() {
    world_ = std::make_unique<World>();
    return *world_;
  }

  static inline std::unique_ptr<World> world_;  // created before the base and destroyed before it
};

class LinuxAppleSubject final : public AppleSubject {
 public:
  LinuxAppleSubject() : AppleSubject(service()) {}

  std::string locale() override { return "en-US"; }
  std::vector<std::int16_t> speech() override { return readRecording(testData / "goforward.raw"); }
  void deliverUntil(const std::function<bool()>& condition) override { serveMainQueueUntil(condition); }

 private:
  static SpeechRecognition& service() {
    static PocketSphinxRecognition recognition;  // its engines are shared by all tests
    return recognition;
  }
};

INSTANTIATE_TEST_SUITE_P(AppleOverSimulation, SpeechRecognitionContract,
                         testing::Values([] { return std::make_unique<SimulatedAppleSubject>(); }));
INSTANTIATE_TEST_SUITE_P(AppleOverThreads, SpeechRecognitionContract,
                         testing::Values([] { return std::make_unique<ThreadedAppleSubject>(); }));
INSTANTIATE_TEST_SUITE_P(AppleOverLinux, SpeechRecognitionContract,
                         testing::Values([] { return std::make_unique<LinuxAppleSubject>(); }));

TEST(AppleSpeechRecognition, RecordingIsTranscribedThroughFrameworks) {
  LinuxAppleSubject subject;
  const auto recognizer = subject.recognition().makeRecognizer("en-US");
  ASSERT_TRUE(recognizer);
  const auto request = recognizer->makeRequest({});
  RecordedAnswers answers;
  const auto task = recognizer->recognitionTask(request, answers.handler());
  appendInBuffers(*request, subject.speech());
  request->endAudio();
  subject.deliverUntil([&] { return answers.hasLast(); });
  const auto last = answers.waitForLast();
  ASSERT_TRUE(last && last->result);
  EXPECT_EQ(last->result->formattedString, "go forward ten meters");
}

}  // namespace
}  // namespace palaver
