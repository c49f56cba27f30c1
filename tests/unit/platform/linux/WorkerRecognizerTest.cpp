#include "platform/linux/WorkerRecognizer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "platform/linux/LinuxSpeechRecognition.h"
#include "platform/linux/WorkerConnection.h"
#include "platform/linux/WorkerErrors.h"
#include "tests/support/FakeWorkerFolder.h"
#include "tests/support/JobQueue.h"
#include "tests/support/RecordedAnswers.h"

namespace palaver {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

// Limits for tests in which a limit must be reached, ms.
constexpr WorkerLimits shortLimits{
    .loading = 300, .answering = 300, .idle = 300, .check = 20, .deaths = 1000, .deathWindow = 1, .pause = 1};

// Recognizes with a fake worker.
class WorkerRecognizerTest : public testing::Test {
 protected:
  struct Conversation {
    Conversation(SpeechRecognizer& recognizer, JobQueue& queue)
        : mainQueue(queue),
          request(recognizer.makeRequest({.shouldReportPartialResults = true,
                                          .requiresOnDeviceRecognition = true,
                                          .taskHint = TaskHint::dictation,
                                          .contextualStrings = {}})),
          task(recognizer.recognitionTask(request, answers.handler())) {}

    void speak(std::size_t buffers = 1) {
      appendInBuffers(*request, std::vector<std::int16_t>(1600 * buffers, 5000));
    }
    // Returns the task's last answer as text.
    std::string end() {
      mainQueue.runAll();
      const auto last = answers.waitForLast(std::chrono::seconds(60));
      if (!last) return "(no answer)";
      return last->error ? last->error->localizedDescription() : last->result->formattedString;
    }
    // Returns the code of the error that ended the task.
    std::optional<WorkerErrorCode> errorCode() {
      end();
      const auto last = answers.waitForLast(std::chrono::seconds(60));
      if (!last || !last->error || last->error->domain() != workerErrorDomain) return std::nullopt;
      return static_cast<WorkerErrorCode>(last->error->code());
    }

    JobQueue& mainQueue;
    RecordedAnswers answers;
    std::shared_ptr<RecognitionRequest> request;
    std::unique_ptr<RecognitionTask> task;
  };

  LinuxSpeechRecognition& recognition() {
    if (!recognition_)
      recognition_.emplace(mainQueue_, systemModelRoot,
                           WorkerSettings{.program =
                                              [this] {
                                                ++starts_;
                                                return worker_.program();
                                              },
                                          .limits = limits_,
                                          .now = [this] { return now(); }});
    return *recognition_;
  }
  SpeechRecognizer& recognizer() {
    if (!recognizer_) recognizer_ = recognition().makeRecognizer("en-US");
    return *recognizer_;
  }
  double now() const { return WorkerSettings().now() + shift_; }

  FakeWorkerFolder worker_{PALAVER_FAKE_WORKER};
  WorkerLimits limits_;
  std::atomic<double> shift_ = 0;  // ms that the clock is ahead
  int starts_ = 0;
  JobQueue mainQueue_;
  std::optional<LinuxSpeechRecognition> recognition_;
  std::unique_ptr<SpeechRecognizer> recognizer_;
};

TEST_F(WorkerRecognizerTest, RecognizersShareOneWorker) {
  Conversation first(recognizer(), mainQueue_);
  const auto other = recognition().makeRecognizer("en_us");
  Conversation second(*other, mainQueue_);
  for (auto* const conversation : {&first, &second}) {
    conversation->speak();
    conversation->request->endAudio();
    EXPECT_EQ(conversation->end(), "go forward");
  }
  EXPECT_EQ(starts_, 1);
}

TEST_F(WorkerRecognizerTest, RecognizerAloneStartsNothing) {
  EXPECT_TRUE(recognizer().supportsOnDeviceRecognition());
  const auto request = recognizer().makeRequest({});
  EXPECT_EQ(starts_, 0);
  recognition().prepare("en-US");
  EXPECT_EQ(starts_, 1);
  recognition().prepare("en-US");
  EXPECT_EQ(starts_, 1);
}

TEST_F(WorkerRecognizerTest, LocaleWithoutModelIsNotPrepared) {
  for (const char* locale : {"ja-JP", "not a locale", ""}) recognition().prepare(locale);
  EXPECT_EQ(starts_, 0);
}

TEST_F(WorkerRecognizerTest, EveryEndIsReportedOnceAndNextTaskRestarts) {
  limits_ = {.deaths = 1000};
  const std::pair<const char*, const char*> ends[] = {
      {"exit 0", "The speech engine ended unexpectedly (exit status 0). The next words start it again"},
      {"exit 3", "The speech engine ended unexpectedly (exit status 3). The next words start it again"},
      {"signal 6",
       "The speech engine ended unexpectedly (signal 6 (Aborted)). The next words start it again"},
      {"signal 7",
       "The speech engine ended unexpectedly (signal 7 (Bus error)). The next words start it again"},
      {"signal 9", "The speech engine ended unexpectedly (signal 9 (Killed)). The next words start it again"},
      {"close",
       "The speech engine ended unexpectedly (it closed its socket). The next words start it again"}};
  for (const auto& [what, error] : ends) {
    worker_.behave(std::string("audio ") + what);
    Conversation conversation(recognizer(), mainQueue_);
    conversation.speak();
    EXPECT_EQ(conversation.end(), error) << what;
    EXPECT_EQ(conversation.errorCode(), WorkerErrorCode::ended);
    conversation.speak();
    conversation.request->endAudio();
    const auto answers = conversation.answers.all();
    ASSERT_EQ(answers.size(), 2U) << what;
    EXPECT_EQ(answers[0].result->formattedString, "go forward") << "the partial before the end";
    worker_.behave("never");
    Conversation next(recognizer(), mainQueue_);
    next.speak();
    next.request->endAudio();
    EXPECT_EQ(next.end(), "go forward") << what;
    recognizer_.reset();
    recognition_.reset();  // ends the worker that behaves
  }
}

TEST_F(WorkerRecognizerTest, MalformedFramesEndWorker) {
  limits_ = {.deaths = 1000};
  for (const char* what : {"garbage", "oversized", "stranger", "helper-frame"}) {
    worker_.behave(std::string("audio ") + what);
    Conversation conversation(recognizer(), mainQueue_);
    conversation.speak();
    EXPECT_THAT(conversation.end(), StartsWith("The speech engine sent an answer that cannot be read"))
        << what;
    EXPECT_EQ(conversation.errorCode(), WorkerErrorCode::malformedAnswer);
  }
}

TEST_F(WorkerRecognizerTest, EndWhileLoadingNamesModel) {
  limits_ = {.deaths = 1000};
  const std::string model = "The speech model in /usr/share/pocketsphinx/model/en-us could not be loaded: ";
  const std::pair<const char*, const char*> ends[] = {
      {"exit 1", "the speech engine ended unexpectedly (exit status 1)"},
      {"signal 11", "the speech engine ended unexpectedly (signal 11 (Segmentation fault))"},
      {"close", "the speech engine ended unexpectedly (it closed its socket)"},
      {"fail", "it is only a fake"}};
  for (const auto& [what, reason] : ends) {
    worker_.behave(std::string("loading ") + what);
    Conversation conversation(recognizer(), mainQueue_);
    EXPECT_EQ(conversation.end(), model + reason);
    EXPECT_EQ(conversation.errorCode(), WorkerErrorCode::modelNotLoaded);
  }
}

// The connection may be ending or have ended.
TEST_F(WorkerRecognizerTest, TaskThatWorkersEndOvertookNamesItsReason) {
  for (const std::string what : {"exit 1", "close"}) {
    worker_.behave("loading " + what);
    WorkerConnection connection({"pocketsphinx", systemModelRoot, "en-US"},
                                {.program = [this] { return worker_.program(); }});
    RecordedAnswers first;
    if (const auto channel = connection.openChannel())
      if (connection.startTask(*channel, {}, first.handler())) first.waitForLast(std::chrono::seconds(60));
    ASSERT_FALSE(connection.isOpen());
    RecordedAnswers late;
    std::string reason;
    try {
      connection.startFailingTask(late.handler());
      reason = late.waitForLast(std::chrono::seconds(60))->error->localizedDescription();
    } catch (const PlatformError& error) {
      reason = error.localizedDescription();
    }
    EXPECT_THAT(reason, HasSubstr("could not be loaded: the speech engine ended unexpectedly")) << what;
  }
}

TEST_F(WorkerRecognizerTest, HangWhileLoadingIsEnded) {
  limits_ = shortLimits;
  for (const char* what : {"hang", "stop"}) {
    worker_.behave(std::string("loading ") + what);
    Conversation conversation(recognizer(), mainQueue_);
    EXPECT_THAT(conversation.end(), HasSubstr("could not be loaded: it was not loaded within 0 s"));
    EXPECT_EQ(conversation.errorCode(), WorkerErrorCode::modelNotLoaded);
  }
}

TEST_F(WorkerRecognizerTest, HangWhileDecodingIsEnded) {
  limits_ = shortLimits;
  for (const char* behaviour : {"audio hang", "audio stop", "end hang", "end stop", "task hang"}) {
    worker_.behave(behaviour);
    Conversation conversation(recognizer(), mainQueue_);
    conversation.speak(20);
    conversation.request->endAudio();
    EXPECT_EQ(conversation.errorCode(), WorkerErrorCode::unresponsive) << behaviour;
    EXPECT_THAT(conversation.end(), StartsWith("The speech engine did not answer for")) << behaviour;
  }
}

TEST_F(WorkerRecognizerTest, HangInLongDecodingIsEndedLater) {
  limits_ = shortLimits;
  limits_.decodingPace = 0.015;  // 900 ms for the 60 s that the worker reports
  worker_.behave("audio decode");
  Conversation conversation(recognizer(), mainQueue_);
  conversation.speak(20);
  EXPECT_EQ(conversation.errorCode(), WorkerErrorCode::unresponsive);
  EXPECT_THAT(conversation.end(), StartsWith("The speech engine did not answer for 1 s"));
}

TEST_F(WorkerRecognizerTest, AllTasksOfEndedWorkerGetError) {
  worker_.behave("end signal 9");
  Conversation first(recognizer(), mainQueue_);
  const auto other = recognition().makeRecognizer("en-US");
  Conversation second(*other, mainQueue_), third(*other, mainQueue_);
  second.speak();
  ASSERT_TRUE(second.answers.waitForCount(1));
  first.request->endAudio();
  for (auto* const conversation : {&first, &second, &third})
    EXPECT_EQ(conversation->errorCode(), WorkerErrorCode::ended);
}

TEST_F(WorkerRecognizerTest, AnswerAfterCancelIsIgnored) {
  worker_.behave("cancel answer");
  Conversation cancelled(recognizer(), mainQueue_);
  cancelled.speak();
  ASSERT_TRUE(cancelled.answers.waitForCount(1));
  cancelled.task->cancel();
  Conversation next(recognizer(), mainQueue_);
  next.speak();
  next.request->endAudio();
  EXPECT_EQ(next.end(), "go forward");
  EXPECT_EQ(cancelled.answers.all().size(), 1U);
  EXPECT_EQ(starts_, 1);
}

TEST_F(WorkerRecognizerTest, WorkerThatKeepsEndingIsLeftAlone) {
  worker_.behave("unready exit 1");
  recognition();
  for (int i = 0; i < 3; ++i) {
    Conversation conversation(recognizer(), mainQueue_);
    EXPECT_EQ(conversation.errorCode(), WorkerErrorCode::modelNotLoaded);
  }
  EXPECT_EQ(starts_, 3);
  for (int i = 0; i < 5; ++i) {
    Conversation conversation(recognizer(), mainQueue_);
    EXPECT_EQ(conversation.errorCode(), WorkerErrorCode::paused);
    EXPECT_THAT(conversation.end(),
                StartsWith("The speech engine ended 3 times within 60 s. It is started again in "));
    EXPECT_EQ(conversation.answers.all().size(), 1U);
  }
  recognition().prepare("en-US");
  EXPECT_EQ(starts_, 3);
  shift_ = 31'000;
  worker_.behave("never");
  Conversation conversation(recognizer(), mainQueue_);
  conversation.request->endAudio();
  EXPECT_EQ(conversation.end(), "go forward");
  EXPECT_EQ(starts_, 4);
}

TEST_F(WorkerRecognizerTest, MissingWorkerIsError) {
  std::filesystem::remove(worker_.program());
  Conversation conversation(recognizer(), mainQueue_);
  EXPECT_TRUE(conversation.answers.all().empty()) << "no answer inside the call";
  EXPECT_EQ(conversation.end(),
            "The speech engine is not installed: there is no program " + worker_.program().string());
  EXPECT_EQ(conversation.errorCode(), WorkerErrorCode::missing);
  EXPECT_EQ(conversation.answers.all().size(), 1U);
}

TEST_F(WorkerRecognizerTest, WorkerThatIsNoProgramIsError) {
  std::ofstream(worker_.program(), std::ios::trunc) << "neither a program nor a script\n";
  Conversation conversation(recognizer(), mainQueue_);
  EXPECT_EQ(conversation.end(), "The speech engine could not be started: Exec format error");
  EXPECT_EQ(conversation.errorCode(), WorkerErrorCode::notStarted);
}

TEST_F(WorkerRecognizerTest, NoDescriptorLeftIsError) {
#ifdef PALAVER_SANITIZED
  GTEST_SKIP() << "the sanitizer itself needs descriptors to check the type of an object";
#endif
  Conversation before(recognizer(), mainQueue_);  // needs the folder's files only once
  before.request->endAudio();
  EXPECT_EQ(before.end(), "go forward");
  recognizer_.reset();
  recognition_.reset();
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit low{3, limit.rlim_max};
  auto& recognizerWithoutDescriptors = recognizer();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  Conversation conversation(recognizerWithoutDescriptors, mainQueue_);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_EQ(conversation.end(), "The speech engine could not be started: Too many open files");
}

TEST_F(WorkerRecognizerTest, CancelledTaskThatCouldNotStartIsSilent) {
  std::filesystem::remove(worker_.program());
  Conversation conversation(recognizer(), mainQueue_);
  conversation.task->cancel();
  mainQueue_.runAll();
  EXPECT_TRUE(conversation.answers.all().empty());
}

TEST_F(WorkerRecognizerTest, DestroyedRecognitionCallsNoHandler) {
  std::filesystem::remove(worker_.program());
  {
    Conversation conversation(recognizer(), mainQueue_);
    recognizer_.reset();
    recognition_.reset();
  }
  mainQueue_.runAll();  // must not touch the destroyed answers
}

TEST_F(WorkerRecognizerTest, IdleWorkerEndsAndNextTaskRestarts) {
  limits_ = shortLimits;
  limits_.answering = 60'000;
  const auto talk = [this] {
    const auto temporary = recognition().makeRecognizer("en-US");
    Conversation conversation(*temporary, mainQueue_);
    conversation.speak();
    conversation.request->endAudio();
    EXPECT_EQ(conversation.end(), "go forward");
  };
  talk();
  EXPECT_EQ(starts_, 1);
  // The worker's end is seen from outside: its program is no longer in use and can be written.
  const auto isInUse = [this] { return !std::ofstream(worker_.program(), std::ios::app).is_open(); };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (isInUse() && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  EXPECT_FALSE(isInUse());
  talk();
  EXPECT_EQ(starts_, 2);
}

TEST_F(WorkerRecognizerTest, StoppedWorkerNeverBlocksCaller) {
  // The audio of two hours does not fit into the socket, and the worker reads nothing.
  worker_.behave("audio stop");
  Conversation conversation(recognizer(), mainQueue_);
  const auto buffer = makeSpeechBuffer(std::vector<std::int16_t>(16000));
  for (int i = 0; i < 7200; ++i) conversation.request->append(buffer);
  conversation.request->endAudio();
  conversation.task->cancel();
  EXPECT_LE(conversation.answers.all().size(), 1U);
}

}  // namespace
}  // namespace palaver
