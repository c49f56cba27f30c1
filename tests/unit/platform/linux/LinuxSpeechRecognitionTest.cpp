#include "platform/linux/LinuxSpeechRecognition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/DamagedModel.h"
#include "tests/support/JobQueue.h"
#include "tests/support/Recording.h"
#include "tests/support/SpeechRecognitionContract.h"
#include "tests/support/TemporaryFolder.h"

namespace palaver {
namespace {

std::vector<std::int16_t> goForward() {
  return readRecording("/usr/share/pocketsphinx/test/data/goforward.raw");
}

WorkerSettings realWorker() {
  return {.program = [] { return std::filesystem::path(PALAVER_WORKER); }};
}

class LinuxSubject final : public SpeechRecognitionContractSubject {
 public:
  SpeechRecognition& recognition() override { return recognition_; }
  std::string locale() override { return "en-US"; }
  std::vector<std::int16_t> speech() override { return goForward(); }
  void deliver() override { mainQueue_.runAll(); }

 private:
  JobQueue mainQueue_;
  LinuxSpeechRecognition recognition_{mainQueue_, systemModelRoot, realWorker()};
};

INSTANTIATE_TEST_SUITE_P(Linux, SpeechRecognitionContract,
                         testing::Values([] { return std::make_unique<LinuxSubject>(); }));

class LinuxSpeechRecognitionTest : public testing::Test {
 protected:
  JobQueue mainQueue_;
  LinuxSpeechRecognition recognition_{mainQueue_, systemModelRoot, realWorker()};
};

TEST_F(LinuxSpeechRecognitionTest, NeedsNoPermission) {
  EXPECT_EQ(recognition_.authorizationStatus(), AuthorizationStatus::authorized);
  std::optional<AuthorizationStatus> answer;
  recognition_.requestAuthorization([&answer](AuthorizationStatus status) { answer = status; });
  EXPECT_EQ(answer, AuthorizationStatus::authorized);
}

TEST_F(LinuxSpeechRecognitionTest, LocaleWithoutModelIsSupportedNotInstalled) {
  const auto recognizer = recognition_.makeRecognizer("ja-JP");
  ASSERT_TRUE(recognizer);
  EXPECT_FALSE(recognizer->supportsOnDeviceRecognition());
}

TEST_F(LinuxSpeechRecognitionTest, InvalidLocaleIsNotSupported) {
  for (const char* identifier : {"", "not a locale", "../x", "en-US/"})
    EXPECT_FALSE(recognition_.makeRecognizer(identifier)) << identifier;
}

TEST_F(LinuxSpeechRecognitionTest, ModelWithMissingFileIsNotInstalled) {
  const DamagedModel model;
  LinuxSpeechRecognition recognition(mainQueue_, model.root(), realWorker());
  const auto recognizer = recognition.makeRecognizer("en_us");
  EXPECT_TRUE(recognizer->supportsOnDeviceRecognition());
  for (const auto& file : model.files().all()) {
    std::filesystem::remove(file);
    EXPECT_FALSE(recognizer->supportsOnDeviceRecognition()) << file;
    model.restore(file);
  }
  EXPECT_TRUE(recognizer->supportsOnDeviceRecognition());
}

// A program that runs the worker with a limit of threads, which root has to give up being root for.
class WorkerWithoutThreads {
 public:
  WorkerWithoutThreads() {
    using std::filesystem::perms;
    constexpr auto everybodys =
        perms::owner_all | perms::group_read | perms::group_exec | perms::others_read | perms::others_exec;
    std::filesystem::permissions(folder_.path(), everybodys);
    std::filesystem::copy_file(PALAVER_WORKER, folder_.path() / "worker");
    std::ofstream(program()) << "#!/bin/sh\n"
                                "[ \"$(id -u)\" -ne 0 ] || user='setpriv --reuid=65534 --clear-groups'\n"
                                "exec $user prlimit --nproc=0 \"$(dirname \"$0\")/worker\" \"$@\"\n";
    std::filesystem::permissions(program(), everybodys);
  }

  std::filesystem::path program() const { return folder_.path() / "limited-worker"; }

 private:
  const TemporaryFolder folder_;
};

TEST_F(LinuxSpeechRecognitionTest, EngineWithoutThreadNamesItsReason) {
  const WorkerWithoutThreads worker;
  LinuxSpeechRecognition recognition(mainQueue_, systemModelRoot,
                                     {.program = [&worker] { return worker.program(); }});
  const auto recognizer = recognition.makeRecognizer("en-US");
  const auto request = recognizer->makeRequest({});
  RecordedAnswers answers;
  const auto task = recognizer->recognitionTask(request, answers.handler());
  const auto last = answers.waitForLast();
  ASSERT_TRUE(last && last->error);
  EXPECT_THAT(last->error->localizedDescription(),
              testing::EndsWith("could not be loaded: the speech engine cannot start: Resource temporarily "
                                "unavailable"));
}

// Recognizes "go forward ten meters" with a model whose files can be damaged.
class DamagedModelTest : public testing::Test {
 protected:
  // Returns the final text of a new worker, or the error as "error: ...".
  std::string recognize() {
    LinuxSpeechRecognition recognition(mainQueue_, model_.root(), realWorker());
    const auto recognizer = recognition.makeRecognizer("en-US");
    const auto request = recognizer->makeRequest({});
    RecordedAnswers answers;
    const auto task = recognizer->recognitionTask(request, answers.handler());
    appendInBuffers(*request, goForward());
    request->endAudio();
    mainQueue_.runAll();
    const auto last = answers.waitForLast();
    if (!last) return "(no answer)";
    return last->error ? "error: " + last->error->localizedDescription() : last->result->formattedString;
  }

  const DamagedModel model_;
  const std::string couldNotBeLoaded_ =
      "error: The speech model in " + (model_.root() / "en-us").string() + " could not be loaded: ";
  JobQueue mainQueue_;
};

TEST_F(DamagedModelTest, EmptyFileIsNamed) {
  model_.replace(model_.file("sendump"), "");
  EXPECT_EQ(recognize(), couldNotBeLoaded_ + "sendump is empty or not a file");
  model_.restore(model_.file("sendump"));
  EXPECT_EQ(recognize(), "go forward ten meters");
}

// The library notices these, by crashing, by ending the process or by an error.
TEST_F(DamagedModelTest, HalvedFileIsErrorThatNamesFolder) {
  for (const char* const name : {"en-us.lm.bin", "mdef", "means", "transition_matrices", "variances"}) {
    const auto file = model_.file(name);
    const auto contents = DamagedModel::read(file);
    model_.replace(file, std::string_view(contents).substr(0, contents.size() / 2));
    EXPECT_THAT(recognize(), testing::StartsWith(couldNotBeLoaded_)) << name;
    model_.restore(file);
  }
  EXPECT_EQ(recognize(), "go forward ten meters");
}

// The library maps it. What has been cut off cannot be read any more.
TEST_F(DamagedModelTest, FileThatShrinksWhileItIsUsedEndsWorkerAndNextOneHearsAgain) {
  const auto file = model_.file("sendump");
  model_.replace(file, DamagedModel::read(file));
  LinuxSpeechRecognition recognition(mainQueue_, model_.root(), realWorker());
  const auto recognizer = recognition.makeRecognizer("en-US");
  const auto request = recognizer->makeRequest({.shouldReportPartialResults = true,
                                                .requiresOnDeviceRecognition = true,
                                                .taskHint = TaskHint::dictation,
                                                .contextualStrings = {}});
  RecordedAnswers answers;
  const auto task = recognizer->recognitionTask(request, answers.handler());
  appendInBuffers(*request, goForward());
  ASSERT_TRUE(answers.waitForCount(1));  // the model is loaded and in use
  std::filesystem::resize_file(file, 0);
  appendInBuffers(*request, goForward());
  request->endAudio();
  const auto last = answers.waitForLast();
  ASSERT_TRUE(last && last->error);
  EXPECT_THAT(last->error->localizedDescription(),
              testing::StartsWith("The speech engine ended unexpectedly (signal 7 (Bus error))"));
  model_.restore(file);
  EXPECT_EQ(recognize(), "go forward ten meters");
}

// The library does not notice these. They cost words at most.
TEST_F(DamagedModelTest, HalvedTableIsStillAnswered) {
  for (const char* const name : {"cmudict-en-us.dict", "sendump"}) {
    const auto file = model_.file(name);
    const auto contents = DamagedModel::read(file);
    model_.replace(file, std::string_view(contents).substr(0, contents.size() / 2));
    EXPECT_THAT(recognize(), testing::Not("(no answer)")) << name;
    model_.restore(file);
  }
}

}  // namespace
}  // namespace palaver
