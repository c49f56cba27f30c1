// Tests the SFSpeechRecognizer adapter and the frameworks' believed deviations from their documentation.
#import <Speech/Speech.h>
#include <dispatch/dispatch.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#include "apple-stand-ins/objc/Runtime.h"
#include "legacy/DictationProbe.h"
#include "platform/audio/SndfileAudioFile.h"
#include "platform/audio/SpeexAudioConverter.h"
#include "platform/macos/AppleSpeechRecognition.h"
#include "platform/macos/AutoreleasePool.h"
#include "simulator/machine/Scheduler.h"
#include "simulator/machine/SimulatedSpeechRecognition.h"
#include "tests/apple/support/MainRunLoop.h"
#include "tests/support/RecordedAnswers.h"

namespace palaver {
namespace {

using testing::ElementsAre;

RecognitionState answering() {
  RecognitionState state;
  state.answersAfterEndAudio = 100;
  state.utterances = {{{{200, "one"}, {500, "one two"}}, "one two three"}};
  return state;
}

const std::vector<std::int16_t> sound(16000, 3000);

std::size_t alive(Class of) { return objc::liveObjects((__bridge objc::Class*)of); }

class AppleSpeech : public testing::Test {
 protected:
  // Holds a task with its audio and its own recognizer.
  struct Speaker {
    std::unique_ptr<SpeechRecognizer> recognizer;
    std::shared_ptr<RecognitionRequest> request;
    std::unique_ptr<RecognitionTask> task;
    std::unique_ptr<RecordedAnswers> answers = std::make_unique<RecordedAnswers>();
  };

  ~AppleSpeech() override {
    scheduler_.clear();
    drainMainQueue();
  }

  Speaker begin(RecognitionOptions options = {}) {
    Speaker speaker;
    speaker.recognizer = recognition_.makeRecognizer("ja-JP");
    speaker.request = speaker.recognizer->makeRequest(std::move(options));
    speaker.task = speaker.recognizer->recognitionTask(speaker.request, speaker.answers->handler());
    return speaker;
  }
  // Advances virtual time by one second and delivers everything due.
  void pass() {
    for (const double end = scheduler_.now() + 1000; scheduler_.now() < end;) scheduler_.runSlice(10);
    drainMainQueue();
  }
  static std::vector<std::string> texts(const Speaker& speaker) {
    std::vector<std::string> texts;
    for (const auto& answer : speaker.answers->all())
      texts.push_back(answer.error ? answer.error->domain() + " " + std::to_string(answer.error->code()) +
                                         ": " + answer.error->localizedDescription()
                                   : answer.result->formattedString);
    return texts;
  }

  Quirks& quirks() { return behaviour_.quirks; }

  Scheduler scheduler_;
  SimulatedSpeechRecognition simulated_{scheduler_, answering()};
  SpeexAudioConverters converters_;
  SndfileAudioFiles files_;
  FrameworkBehaviour behaviour_{simulated_, converters_, files_, {15, 0, 0}};
  AppleSpeechRecognition recognition_;
};

TEST_F(AppleSpeech, OptionsReachTheRequest) {
  const auto speaker = begin({.shouldReportPartialResults = false,
                              .requiresOnDeviceRecognition = true,
                              .taskHint = TaskHint::dictation,
                              .contextualStrings = {"未来", "zwei"}});
  const auto requests = simulated_.probes();
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].locale, "ja-JP");
  EXPECT_FALSE(requests[0].options.shouldReportPartialResults);
  EXPECT_TRUE(requests[0].options.requiresOnDeviceRecognition);
  EXPECT_EQ(requests[0].options.taskHint, TaskHint::dictation);
  EXPECT_THAT(requests[0].options.contextualStrings, ElementsAre("未来", "zwei"));
}

TEST_F(AppleSpeech, PhraseWithInvalidUTF8IsReadAsLatin1) {
  const auto speaker = begin({.shouldReportPartialResults = true,
                              .requiresOnDeviceRecognition = false,
                              .taskHint = TaskHint::unspecified,
                              .contextualStrings = {"Z\xFCrich", ""}});
  EXPECT_THAT(simulated_.requests().at(0).options.contextualStrings, ElementsAre("Zürich", ""));
  EXPECT_EQ(recognition_.makeRecognizer("\xFF\xFE"), nullptr);
}

TEST_F(AppleSpeech, ResultsArriveOnRunLoopOnly) {
  const auto speaker = begin();
  appendInBuffers(*speaker.request, sound);
  speaker.request->endAudio();
  for (const double end = scheduler_.now() + 1000; scheduler_.now() < end;) scheduler_.runSlice(10);
  EXPECT_TRUE(texts(speaker).empty());
  drainMainQueue();
  EXPECT_THAT(texts(speaker), ElementsAre("one", "one two", "one two three"));
}

TEST_F(AppleSpeech, SegmentsKeepTextAndTimes) {
  const auto speaker = begin();
  simulated_.answer(TaskChoice(),
                    {RecognitionResult{"東京 and", {{"東京", 0.25, 0.5}, {"and", 1.5, 0.125}}, false}, {}});
  pass();
  const auto all = speaker.answers->all();
  ASSERT_EQ(all.size(), 1U);
  const auto& result = *all[0].result;
  EXPECT_EQ(result.formattedString, "東京 and");
  EXPECT_FALSE(result.isFinal);
  ASSERT_EQ(result.segments.size(), 2U);
  EXPECT_EQ(result.segments[0].substring, "東京");
  EXPECT_EQ(result.segments[0].timestamp, 0.25);
  EXPECT_EQ(result.segments[0].duration, 0.5);
  EXPECT_EQ(result.segments[1].timestamp, 1.5);
  EXPECT_EQ(result.segments[1].duration, 0.125);
}

TEST_F(AppleSpeech, PartialsWithoutTimesAreForwarded) {
  quirks().partialsHaveNoTimes = true;
  const auto speaker = begin();
  appendInBuffers(*speaker.request, sound);
  speaker.request->endAudio();
  pass();
  const auto all = speaker.answers->all();
  ASSERT_EQ(all.size(), 3U);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(all[static_cast<std::size_t>(i)].result->segments.at(0).timestamp, 0);
    EXPECT_EQ(all[static_cast<std::size_t>(i)].result->segments.at(0).duration, 0);
  }
  EXPECT_GT(all[2].result->segments.at(0).duration, 0);
}

TEST_F(AppleSpeech, EmptyFinalIsForwarded) {
  quirks().finalIsEmpty = true;
  const auto speaker = begin();
  appendInBuffers(*speaker.request, sound);
  speaker.request->endAudio();
  pass();
  EXPECT_THAT(texts(speaker), ElementsAre("one", "one two", ""));
  EXPECT_TRUE(speaker.answers->all().back().result->isFinal);
}

// Errors that users have reported, with domains, codes and texts.
TEST_F(AppleSpeech, ErrorsKeepDomainCodeAndText) {
  const std::vector<PlatformError> errors{
      {"kLSRErrorDomain", 102, "Failed to access assets"},
      {"kLSRErrorDomain", 201, "Siri and Dictation are disabled"},
      {"kLSRErrorDomain", 300, "Failed to initialize recognizer"},
      {"kLSRErrorDomain", 301, "Recognition request was canceled"},
      {"kAFAssistantErrorDomain", 203, "Retry"},
      {"kAFAssistantErrorDomain", 209, ""},
      {"kAFAssistantErrorDomain", 216, "取り消されました"},
      {"kAFAssistantErrorDomain", 1110, "No speech detected"},
      {"kAFAssistantErrorDomain", 1700, "not authorized"},
      {"SFSpeechErrorDomain", 12, "timeout"},
      {"NSOSStatusErrorDomain", -10868, "negative"},
  };
  for (const auto& error : errors) {
    const auto speaker = begin();
    simulated_.answer(TaskChoice(), {std::nullopt, error});
    pass();
    const auto all = speaker.answers->all();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_FALSE(all[0].result);
    EXPECT_EQ(all[0].error->domain(), error.domain());
    EXPECT_EQ(all[0].error->code(), error.code());
    EXPECT_EQ(all[0].error->localizedDescription(), error.localizedDescription());
  }
}

// On a Japanese system the text is believed to be Japanese.
TEST_F(AppleSpeech, DictationOffIsRecognizedInAnyLanguage) {
  const auto speaker = begin();
  simulated_.answer(TaskChoice(), {std::nullopt, PlatformError("kLSRErrorDomain", 201,
                                                               "Siriと音声入力が無効になっています")});
  pass();
  const auto all = speaker.answers->all();
  ASSERT_EQ(all.size(), 1U);
  EXPECT_TRUE(isDictationDisabledError(*all[0].error));
  EXPECT_EQ(texts(speaker).at(0), "kLSRErrorDomain 201: Siri and Dictation are disabled");
}

TEST_F(AppleSpeech, OtherErrorsKeepTranslatedText) {
  for (const PlatformError& error : {PlatformError("kAFAssistantErrorDomain", 201, "再試行"),
                                     PlatformError("kLSRErrorDomain", 300, "初期化できません")}) {
    const auto speaker = begin();
    simulated_.answer(TaskChoice(), {std::nullopt, error});
    pass();
    const auto all = speaker.answers->all();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].error->domain(), error.domain());
    EXPECT_EQ(all[0].error->localizedDescription(), error.localizedDescription());
  }
}

TEST_F(AppleSpeech, ResultAndErrorArriveTogether) {
  const auto speaker = begin();
  simulated_.answer(TaskChoice(), {RecognitionResult{"text", {}, true}, noSpeechError()});
  pass();
  const auto all = speaker.answers->all();
  ASSERT_EQ(all.size(), 1U);
  EXPECT_EQ(all[0].result->formattedString, "text");
  EXPECT_EQ(all[0].error->code(), 1110);
}

TEST_F(AppleSpeech, CancelledTaskAnswerIsForwarded) {
  quirks().errorAfterCancel = cancelledError();
  const auto speaker = begin();
  appendInBuffers(*speaker.request, sound);
  speaker.task->cancel();
  EXPECT_TRUE(texts(speaker).empty()) << "not from inside the call";
  pass();
  EXPECT_THAT(texts(speaker), ElementsAre("kLSRErrorDomain 301: Recognition request was canceled"));
}

TEST_F(AppleSpeech, AnswerAfterEndIsForwarded) {
  quirks().errorAfterEnd = PlatformError("kAFAssistantErrorDomain", 216, "late");
  const auto speaker = begin();
  appendInBuffers(*speaker.request, sound);
  speaker.request->endAudio();
  pass();
  EXPECT_THAT(texts(speaker),
              ElementsAre("one", "one two", "one two three", "kAFAssistantErrorDomain 216: late"));
}

TEST_F(AppleSpeech, OnlyFirstOfTwoTasksIsServed) {
  quirks().onlyFirstTaskIsServed = true;
  auto first = begin();
  auto second = begin();
  appendInBuffers(*first.request, sound);
  appendInBuffers(*second.request, sound);
  second.request->endAudio();
  pass();
  EXPECT_THAT(texts(first), ElementsAre("one", "one two"));
  EXPECT_THAT(texts(second), ElementsAre("kAFAssistantErrorDomain 1110: No speech detected"));
  first.request->endAudio();
  pass();
  EXPECT_EQ(texts(first).back(), "one two three");

  auto third = begin();
  appendInBuffers(*third.request, sound);
  third.request->endAudio();
  pass();
  EXPECT_EQ(texts(third).back(), "one two three") << "the first one has ended";
}

TEST_F(AppleSpeech, RequestServesOneTask) {
  const auto speaker = begin();
  RecordedAnswers answers;
  const auto again = speaker.recognizer->recognitionTask(speaker.request, answers.handler());
  ASSERT_TRUE(again);
  EXPECT_TRUE(answers.all().empty()) << "not from inside the call";
  drainMainQueue();
  ASSERT_EQ(answers.all().size(), 1U);
  EXPECT_EQ(answers.all()[0].error->localizedDescription(), "A recognition request serves one task only");
  again->cancel();
  // The first task continues.
  appendInBuffers(*speaker.request, sound);
  speaker.request->endAudio();
  pass();
  EXPECT_EQ(texts(speaker).back(), "one two three");
}

TEST_F(AppleSpeech, ExceptionAtStartIsAnError) {
  quirks().taskRaises = "the service is not there";
  const auto speaker = begin();
  EXPECT_TRUE(texts(speaker).empty());
  appendInBuffers(*speaker.request, sound);
  speaker.request->endAudio();
  pass();
  EXPECT_THAT(texts(speaker), ElementsAre("NSInternalInconsistencyException -1: the service is not there"));
  speaker.task->cancel();
}

TEST_F(AppleSpeech, ExceptionForAudioEndsTaskWithOneError) {
  const auto speaker = begin();
  quirks().appendRaises = "the format is wrong";
  appendInBuffers(*speaker.request, sound);
  EXPECT_TRUE(texts(speaker).empty());
  pass();
  EXPECT_THAT(texts(speaker), ElementsAre("NSInternalInconsistencyException -1: the format is wrong"));
  EXPECT_TRUE(simulated_.requests().at(0).cancelledAt);
  quirks().appendRaises = nullptr;
  speaker.request->endAudio();
  pass();
  EXPECT_EQ(texts(speaker).size(), 1U) << "nothing follows";
}

TEST_F(AppleSpeech, ExceptionForEarlyAudioIsReportedAtStart) {
  quirks().appendRaises = "the format is wrong";
  Speaker speaker;
  speaker.recognizer = recognition_.makeRecognizer("ja-JP");
  speaker.request = speaker.recognizer->makeRequest({});
  appendInBuffers(*speaker.request, sound);
  drainMainQueue();
  speaker.task = speaker.recognizer->recognitionTask(speaker.request, speaker.answers->handler());
  pass();
  EXPECT_THAT(texts(speaker), ElementsAre("NSInternalInconsistencyException -1: the format is wrong"));
  EXPECT_TRUE(simulated_.requests().empty());
}

TEST_F(AppleSpeech, BufferRefusedBySystemIsAnError) {
  quirks().refusesForeignMemory = true;
  const auto speaker = begin();
  appendInBuffers(*speaker.request, sound);
  pass();
  EXPECT_THAT(texts(speaker),
              ElementsAre("PalaverSTT -1: The system cannot make an audio buffer for the recognizer"));
}

TEST_F(AppleSpeech, AudioAfterEndIsDropped) {
  const auto speaker = begin();
  speaker.request->endAudio();
  quirks().appendRaises = "audio after endAudio";
  appendInBuffers(*speaker.request, sound);
  pass();
  EXPECT_THAT(texts(speaker), ElementsAre("kAFAssistantErrorDomain 1110: No speech detected"));
}

TEST_F(AppleSpeech, EmptyBufferIsDropped) {
  const auto speaker = begin();
  speaker.request->append(makeSpeechBuffer({}));
  appendInBuffers(*speaker.request, sound);
  EXPECT_EQ(simulated_.requests().at(0).buffers.size(), 10U);
}

TEST_F(AppleSpeech, PermissionForwardsUnknownValues) {
  for (const long value : {0L, 1L, 2L, 3L, 77L}) {
    auto state = simulated_.state();
    state.authorization = static_cast<AuthorizationStatus>(value);
    state.authorizationAnswer = {.status = static_cast<AuthorizationStatus>(value), .after = std::nullopt};
    simulated_.setState(state);
    EXPECT_EQ(static_cast<long>(recognition_.authorizationStatus()), value);
    std::optional<AuthorizationStatus> answer;
    recognition_.requestAuthorization([&answer](AuthorizationStatus status) { answer = status; });
    EXPECT_EQ(answer, static_cast<AuthorizationStatus>(value)) << "from inside the call";
  }
}

TEST_F(AppleSpeech, PermissionMayStayUnanswered) {
  quirks().permissionIsNeverAnswered = true;
  bool isAnswered = false;
  recognition_.requestAuthorization([&isAnswered](AuthorizationStatus) { isAnswered = true; });
  pass();
  EXPECT_FALSE(isAnswered);
}

TEST_F(AppleSpeech, MissingModelIsReported) {
  auto state = simulated_.state();
  state.locales["fr-FR"] = false;
  simulated_.setState(state);
  EXPECT_TRUE(recognition_.makeRecognizer("ja-JP")->supportsOnDeviceRecognition());
  EXPECT_FALSE(recognition_.makeRecognizer("fr-FR")->supportsOnDeviceRecognition());
  EXPECT_EQ(recognition_.makeRecognizer("xx-XX"), nullptr);
}

TEST_F(AppleSpeech, EndedTaskReleasesEverything) {
  auto speaker = begin();
  EXPECT_EQ(alive([SFSpeechRecognizer class]), 1U);
  appendInBuffers(*speaker.request, sound);
  speaker.request->endAudio();
  pass();
  speaker = {};
  EXPECT_EQ(alive([NSObject class]), 0U);
}

TEST_F(AppleSpeech, CancelledTaskReleasesEverything) {
  auto speaker = begin();
  appendInBuffers(*speaker.request, sound);
  speaker.task->cancel();
  drainMainQueue();
  speaker = {};
  EXPECT_EQ(alive([NSObject class]), 0U);
}

// The system, not the adapter, retains what a running task needs.
TEST_F(AppleSpeech, AdapterDoesNotRetainRunningTask) {
  auto speaker = begin();
  appendInBuffers(*speaker.request, sound);
  speaker.task.reset();
  EXPECT_EQ(alive([SFSpeechRecognitionTask class]), 0U);
  speaker.recognizer.reset();
  EXPECT_EQ(alive([SFSpeechRecognizer class]), 0U);
  speaker.request->endAudio();
  pass();
  EXPECT_EQ(texts(speaker).back(), "one two three");
}

TEST_F(AppleSpeech, FailedStartReleasesEverything) {
  quirks().taskRaises = "no";
  auto speaker = begin();
  drainMainQueue();
  speaker = {};
  EXPECT_EQ(alive([SFSpeechRecognizer class]), 0U);
  EXPECT_EQ(alive([SFSpeechRecognitionRequest class]), 0U);
  EXPECT_EQ(alive([NSException class]), 0U);
}

TEST_F(AppleSpeech, BufferLivesUntilSystemReleasesIt) {
  const auto recognizer = recognition_.makeRecognizer("ja-JP");
  const auto request = recognizer->makeRequest({});
  auto buffer = makeSpeechBuffer(sound);
  const std::weak_ptr<const PCMBuffer> watch = buffer;
  // Before the task starts, the system keeps the audio unchanged.
  request->append(std::move(buffer));
  EXPECT_FALSE(watch.expired());
  EXPECT_EQ(alive([AVAudioPCMBuffer class]), 1U);
  RecordedAnswers answers;
  const auto task = recognizer->recognitionTask(request, answers.handler());
  EXPECT_TRUE(watch.expired());
  EXPECT_EQ(alive([AVAudioPCMBuffer class]), 0U);
  EXPECT_EQ(simulated_.requests().at(0).buffers.at(0).frames, sound.size());
  EXPECT_EQ(simulated_.requests().at(0).buffers.at(0).firstSample, sound[0]);
  task->cancel();
}

TEST_F(AppleSpeech, ManyUtterancesReleaseEverything) {
  {
    const auto recognizer = recognition_.makeRecognizer("ja-JP");
    for (int i = 0; i < 20; ++i) {
      const auto request = recognizer->makeRequest({});
      RecordedAnswers answers;
      const auto task = recognizer->recognitionTask(request, answers.handler());
      appendInBuffers(*request, sound);
      request->endAudio();
      pass();
      EXPECT_EQ(answers.all().size(), 3U);
    }
    EXPECT_EQ(alive([SFSpeechRecognizer class]), 1U);
  }
  EXPECT_EQ(alive([NSObject class]), 0U);
}

}  // namespace
}  // namespace palaver
