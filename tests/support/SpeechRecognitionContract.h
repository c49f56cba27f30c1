// Tests the contract of SpeechRecognition on any platform.
//
// A platform provides a SpeechRecognitionContractSubject and instantiates the suite:
//
//   INSTANTIATE_TEST_SUITE_P(Linux, SpeechRecognitionContract, testing::Values(makeLinuxSubject));
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/SpeechRecognition.h"
#include "tests/support/RecordedAnswers.h"

namespace palaver {

// Provides a platform and advances its time.
class SpeechRecognitionContractSubject {
 public:
  virtual ~SpeechRecognitionContractSubject() = default;

  virtual SpeechRecognition& recognition() = 0;

  // A locale with an installed model.
  virtual std::string locale() = 0;

  // Speech that the recognizer answers with more than one word, as 16 kHz mono samples.
  virtual std::vector<std::int16_t> speech() = 0;

  // Delivers pending results. Does nothing where results arrive on another thread.
  virtual void deliver() {}

  // Delivers results until the condition holds or a generous deadline has passed.
  virtual void deliverUntil(const std::function<bool()>& /*condition*/) { deliver(); }
};

using SpeechRecognitionContractFactory = std::function<std::unique_ptr<SpeechRecognitionContractSubject>()>;

class SpeechRecognitionContract : public testing::TestWithParam<SpeechRecognitionContractFactory> {
 protected:
  SpeechRecognition& recognition() { return subject_->recognition(); }

  std::unique_ptr<SpeechRecognizer> makeRecognizer() {
    auto recognizer = recognition().makeRecognizer(subject_->locale());
    EXPECT_TRUE(recognizer);
    return recognizer;
  }

  static RecognitionOptions options(bool partialResults = true) {
    return {.shouldReportPartialResults = partialResults,
            .requiresOnDeviceRecognition = true,
            .taskHint = TaskHint::dictation,
            .contextualStrings = {}};
  }

  // Starts a task. Fails the test when the handler is called inside the call.
  static std::unique_ptr<RecognitionTask> start(SpeechRecognizer& recognizer,
                                                const std::shared_ptr<RecognitionRequest>& request,
                                                RecordedAnswers& answers) {
    answers.enterCall();
    auto task = recognizer.recognitionTask(request, answers.handler());
    answers.leaveCall();
    EXPECT_TRUE(task);
    return task;
  }

  std::optional<RecordedAnswers::Answer> last(const RecordedAnswers& answers) {
    subject_->deliverUntil([&answers] { return answers.hasLast(); });
    return answers.waitForLast();
  }

  // Waits until all pending work is done: runs one more task of the same recognizer to its end.
  void settle(SpeechRecognizer& recognizer) {
    RecordedAnswers answers;
    const auto request = recognizer.makeRequest(options());
    const auto task = start(recognizer, request, answers);
    request->endAudio();
    EXPECT_TRUE(last(answers));
  }

  static void expectNoSpeech(const std::optional<RecordedAnswers::Answer>& answer) {
    ASSERT_TRUE(answer && answer->error);
    EXPECT_EQ(answer->error->code(), 1110);
    EXPECT_FALSE(answer->error->localizedDescription().empty());
  }

  const std::unique_ptr<SpeechRecognitionContractSubject> subject_ = GetParam()();
};

TEST_P(SpeechRecognitionContract, InvalidLocaleIsNotSupported) {
  EXPECT_FALSE(recognition().makeRecognizer("not a locale"));
}

TEST_P(SpeechRecognitionContract, InstalledLocaleIsRecognizedOnDevice) {
  EXPECT_TRUE(makeRecognizer()->supportsOnDeviceRecognition());
}

TEST_P(SpeechRecognitionContract, AuthorizationIsAnsweredAtMostOnce) {
  std::atomic<int> answers = 0;
  recognition().requestAuthorization([&answers](AuthorizationStatus) { ++answers; });
  subject_->deliver();
  EXPECT_LE(answers, 1);
}

TEST_P(SpeechRecognitionContract, SpeechYieldsPartialsAndOneFinal) {
  const auto recognizer = makeRecognizer();
  const auto request = recognizer->makeRequest(options());
  RecordedAnswers answers;
  const auto task = start(*recognizer, request, answers);
  appendInBuffers(*request, subject_->speech());
  request->endAudio();
  const auto final = last(answers);
  ASSERT_TRUE(final && final->result);
  EXPECT_TRUE(final->result->isFinal);
  EXPECT_FALSE(final->error);
  EXPECT_FALSE(final->result->formattedString.empty());

  settle(*recognizer);
  EXPECT_FALSE(answers.wasAnsweredInsideCall());
  const auto all = answers.all();
  ASSERT_GT(all.size(), 1U);
  for (std::size_t i = 0; i + 1 < all.size(); ++i) EXPECT_FALSE(all[i].isLast()) << "answer " << i;
  EXPECT_TRUE(all.back().isLast()) << "an answer followed the final";
}

TEST_P(SpeechRecognitionContract, SegmentsAreOrderedAndInsideAudio) {
  const auto recognizer = makeRecognizer();
  const auto request = recognizer->makeRequest(options());
  RecordedAnswers answers;
  const auto task = start(*recognizer, request, answers);
  const auto speech = subject_->speech();
  appendInBuffers(*request, speech);
  request->endAudio();
  ASSERT_TRUE(last(answers));
  for (const auto& answer : answers.all()) {
    ASSERT_TRUE(answer.result);
    ASSERT_FALSE(answer.result->segments.empty());
    double previous = 0;
    for (const auto& segment : answer.result->segments) {
      EXPECT_FALSE(segment.substring.empty());
      EXPECT_GE(segment.timestamp, previous);
      EXPECT_GE(segment.duration, 0);
      previous = segment.timestamp;
    }
    const auto& newest = answer.result->segments.back();
    EXPECT_LE(newest.timestamp + newest.duration, static_cast<double>(speech.size()) / 16000);
  }
}

TEST_P(SpeechRecognitionContract, FinalIsOnlyAnswerWithoutPartials) {
  const auto recognizer = makeRecognizer();
  const auto request = recognizer->makeRequest(options(false));
  RecordedAnswers answers;
  const auto task = start(*recognizer, request, answers);
  appendInBuffers(*request, subject_->speech());
  request->endAudio();
  const auto final = last(answers);
  ASSERT_TRUE(final && final->result);
  EXPECT_TRUE(final->result->isFinal);
  settle(*recognizer);
  EXPECT_EQ(answers.all().size(), 1U);
}

TEST_P(SpeechRecognitionContract, RequestWithoutAudioEndsWithNoSpeech) {
  const auto recognizer = makeRecognizer();
  const auto request = recognizer->makeRequest(options());
  RecordedAnswers answers;
  const auto task = start(*recognizer, request, answers);
  request->endAudio();
  expectNoSpeech(last(answers));
  settle(*recognizer);
  EXPECT_EQ(answers.all().size(), 1U);
}

TEST_P(SpeechRecognitionContract, SilenceEndsWithNoSpeech) {
  const auto recognizer = makeRecognizer();
  const auto request = recognizer->makeRequest(options());
  RecordedAnswers answers;
  const auto task = start(*recognizer, request, answers);
  appendInBuffers(*request, std::vector<std::int16_t>(16000));
  request->endAudio();
  expectNoSpeech(last(answers));
}

TEST_P(SpeechRecognitionContract, AudioAndItsEndMayPrecedeTask) {
  const auto recognizer = makeRecognizer();
  const auto request = recognizer->makeRequest(options());
  appendInBuffers(*request, subject_->speech());
  request->endAudio();
  RecordedAnswers answers;
  const auto task = start(*recognizer, request, answers);
  const auto final = last(answers);
  ASSERT_TRUE(final && final->result);
  EXPECT_FALSE(final->result->formattedString.empty());
  EXPECT_FALSE(answers.wasAnsweredInsideCall());
}

TEST_P(SpeechRecognitionContract, AudioAfterEndIsDropped) {
  const auto recognizer = makeRecognizer();
  const auto request = recognizer->makeRequest(options());
  RecordedAnswers answers;
  const auto task = start(*recognizer, request, answers);
  request->endAudio();
  appendInBuffers(*request, subject_->speech());
  request->endAudio();
  expectNoSpeech(last(answers));
  settle(*recognizer);
  EXPECT_EQ(answers.all().size(), 1U);
}

TEST_P(SpeechRecognitionContract, CancelledTaskYieldsNoFinal) {
  const auto recognizer = makeRecognizer();
  const auto request = recognizer->makeRequest(options());
  RecordedAnswers answers;
  const auto task = start(*recognizer, request, answers);
  appendInBuffers(*request, subject_->speech());
  task->cancel();
  request->endAudio();
  task->cancel();
  settle(*recognizer);
  for (const auto& answer : answers.all()) EXPECT_FALSE(answer.result && answer.result->isFinal);
}

TEST_P(SpeechRecognitionContract, CancellingFinishingTaskDoesNotAffectNext) {
  const auto recognizer = makeRecognizer();
  const auto abandoned = recognizer->makeRequest(options());
  RecordedAnswers ignored;
  const auto abandonedTask = start(*recognizer, abandoned, ignored);
  appendInBuffers(*abandoned, subject_->speech());
  abandoned->endAudio();
  abandonedTask->cancel();

  const auto request = recognizer->makeRequest(options());
  RecordedAnswers answers;
  const auto task = start(*recognizer, request, answers);
  appendInBuffers(*request, subject_->speech());
  request->endAudio();
  const auto final = last(answers);
  ASSERT_TRUE(final && final->result);
  EXPECT_FALSE(final->result->formattedString.empty());
}

TEST_P(SpeechRecognitionContract, RecognizerRunsTasksInSequence) {
  const auto recognizer = makeRecognizer();
  for (int i = 0; i < 3; ++i) {
    const auto request = recognizer->makeRequest(options());
    RecordedAnswers answers;
    const auto task = start(*recognizer, request, answers);
    if (i != 1) appendInBuffers(*request, subject_->speech());
    request->endAudio();
    const auto answer = last(answers);
    ASSERT_TRUE(answer) << "task " << i;
    EXPECT_EQ(answer->error.has_value(), i == 1) << "task " << i;
  }
}

TEST_P(SpeechRecognitionContract, TaskOutlivesHandleAndRecognizer) {
  auto recognizer = makeRecognizer();
  auto request = recognizer->makeRequest(options());
  RecordedAnswers answers;
  auto task = start(*recognizer, request, answers);
  appendInBuffers(*request, subject_->speech());
  request->endAudio();
  task.reset();
  recognizer.reset();
  request.reset();
  const auto final = last(answers);
  ASSERT_TRUE(final && final->result);
  EXPECT_TRUE(final->result->isFinal);
}

TEST_P(SpeechRecognitionContract, UnstartedRequestIsHarmless) {
  const auto recognizer = makeRecognizer();
  {
    const auto request = recognizer->makeRequest(options());
    appendInBuffers(*request, subject_->speech());
  }
  settle(*recognizer);
}

}  // namespace palaver
