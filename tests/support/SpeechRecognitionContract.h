// What every SpeechRecognition keeps to, whatever the platform: a suite to be instantiated once for each.
//
// A platform gives a SpeechRecognitionContractSubject and instantiates the suite:
//
//   INSTANTIATE_TEST_SUITE_P(Linux, SpeechRecognitionContract, testing::Values(makeLinuxSubject));
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/SpeechRecognition.h"

namespace palaver {

// A platform under test, and how its time passes.
class SpeechRecognitionContractSubject {
 public:
  virtual ~SpeechRecognitionContractSubject() = default;

  virtual SpeechRecognition& recognition() = 0;

  // A locale whose model is installed.
  virtual std::string locale() = 0;

  // Audio with speech in it that the recognizer answers with more than one word, as 16 kHz mono samples.
  virtual std::vector<std::int16_t> speech() = 0;

  // Lets what is under way arrive. Nothing to do where results come by themselves, on another thread.
  virtual void deliver() {}
};

// What a task answered, in order. Safe to use from the thread of the handler and from the test's.
class RecordedAnswers {
 public:
  struct Answer {
    std::optional<RecognitionResult> result;
    std::optional<PlatformError> error;

    bool isLast() const { return error || (result && result->isFinal); }
  };

  // For recognitionTask(). The record has to outlive the task.
  ResultHandler handler() {
    return [this](std::optional<RecognitionResult> result, std::optional<PlatformError> error) {
      // Only the test's own thread can be inside the test's call.
      if (std::this_thread::get_id() == testThread_ && isInCall_) wasAnsweredInsideCall_ = true;
      const std::lock_guard guard(lock_);
      answers_.push_back({std::move(result), std::move(error)});
      answered_.notify_all();  // under the lock: the record may go as soon as its waiter has been let through
    };
  }

  // Around the call that starts the task, on the test's thread.
  void enterCall() { isInCall_ = true; }
  void leaveCall() { isInCall_ = false; }
  bool wasAnsweredInsideCall() const { return wasAnsweredInsideCall_; }

  std::vector<Answer> all() const {
    const std::lock_guard guard(lock_);
    return answers_;
  }

  // Waits for an answer that ends the task. None when it does not come within a time that no slow machine
  // needs.
  std::optional<Answer> waitForLast(std::chrono::seconds deadline = std::chrono::seconds(240)) const {
    std::unique_lock guard(lock_);
    const auto hasLast = [this] { return !answers_.empty() && answers_.back().isLast(); };
    if (!answered_.wait_for(guard, deadline, hasLast)) return std::nullopt;
    return answers_.back();
  }

  // Waits for at least so many answers.
  bool waitForCount(std::size_t count, std::chrono::seconds deadline = std::chrono::seconds(240)) const {
    std::unique_lock guard(lock_);
    return answered_.wait_for(guard, deadline, [&] { return answers_.size() >= count; });
  }

 private:
  mutable std::mutex lock_;
  mutable std::condition_variable answered_;
  std::vector<Answer> answers_;

  // For the test's thread.
  const std::thread::id testThread_ = std::this_thread::get_id();
  bool isInCall_ = false;
  bool wasAnsweredInsideCall_ = false;
};

// A buffer of 16 kHz mono audio.
inline std::shared_ptr<const PCMBuffer> makeSpeechBuffer(std::span<const std::int16_t> samples) {
  const AudioFormat format{CommonFormat::int16, 16000, 1, true};
  auto buffer = std::make_shared<PCMBuffer>(format, static_cast<std::uint32_t>(samples.size()));
  std::copy(samples.begin(), samples.end(), buffer->int16ChannelData());
  buffer->setFrameLength(static_cast<std::uint32_t>(samples.size()));
  return buffer;
}

// Appends samples in buffers of 100 ms, as a host sends them.
inline void appendInBuffers(RecognitionRequest& request, std::span<const std::int16_t> samples) {
  constexpr std::size_t bufferLength = 1600;
  for (; !samples.empty(); samples = samples.subspan(std::min(bufferLength, samples.size())))
    request.append(makeSpeechBuffer(samples.first(std::min(bufferLength, samples.size()))));
}

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

  // Starts a task and sees to it that no handler is called from inside the call.
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
    subject_->deliver();
    return answers.waitForLast();
  }

  // Waits until everything that was under way has been worked off: a later task of the same recognizer has
  // ended.
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

TEST_P(SpeechRecognitionContract, AnUnintelligibleLocaleIsNotSupported) {
  EXPECT_FALSE(recognition().makeRecognizer("not a locale"));
}

TEST_P(SpeechRecognitionContract, AnInstalledLocaleIsRecognizedOnTheDevice) {
  EXPECT_TRUE(makeRecognizer()->supportsOnDeviceRecognition());
}

TEST_P(SpeechRecognitionContract, AuthorizationIsAnsweredAtMostOnce) {
  std::atomic<int> answers = 0;
  recognition().requestAuthorization([&answers](AuthorizationStatus) { ++answers; });
  subject_->deliver();
  EXPECT_LE(answers, 1);
}

TEST_P(SpeechRecognitionContract, SpeechIsAnsweredWithPartialResultsAndOneFinal) {
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
  EXPECT_TRUE(all.back().isLast()) << "nothing follows the final";
}

TEST_P(SpeechRecognitionContract, SegmentsAreInOrderAndInsideTheAudio) {
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

TEST_P(SpeechRecognitionContract, WithoutPartialResultsTheFinalIsTheOnlyAnswer) {
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

TEST_P(SpeechRecognitionContract, ARequestWithoutAudioEndsWithNoSpeech) {
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

TEST_P(SpeechRecognitionContract, AudioAndItsEndMayComeBeforeTheTaskStarts) {
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

TEST_P(SpeechRecognitionContract, AudioAfterItsEndIsDropped) {
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

TEST_P(SpeechRecognitionContract, ACancelledTaskGivesNoFinal) {
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

TEST_P(SpeechRecognitionContract, ATaskCancelledAfterItsEndOfAudioLeavesTheNextOneAlone) {
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

TEST_P(SpeechRecognitionContract, TasksFollowOneAnotherOnOneRecognizer) {
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

TEST_P(SpeechRecognitionContract, TheEndOfATaskNeedsNeitherItsHandleNorItsRecognizer) {
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

TEST_P(SpeechRecognitionContract, ARequestThatIsNeverStartedDoesNoHarm) {
  const auto recognizer = makeRecognizer();
  {
    const auto request = recognizer->makeRequest(options());
    appendInBuffers(*request, subject_->speech());
  }
  settle(*recognizer);
}

}  // namespace palaver
