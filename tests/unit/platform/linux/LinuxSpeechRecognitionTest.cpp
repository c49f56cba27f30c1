#include "platform/linux/LinuxSpeechRecognition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/DamagedModel.h"
#include "tests/support/JobQueue.h"
#include "tests/support/Recording.h"
#include "tests/support/SpeechRecognitionContract.h"

namespace palaver {
namespace {

using testing::HasSubstr;

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

}  // namespace
}  // namespace palaver
