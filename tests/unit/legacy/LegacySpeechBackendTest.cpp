#include "legacy/LegacySpeechBackend.h"

#include <gtest/gtest.h>

#include "core/JSONLineWriter.h"
#include "legacy/DictationProbe.h"
#include "tests/unit/core/Fakes.h"

namespace palaver {
namespace {

// Records the locales that are prepared. One locale has a model.
class PreparedRecognition final : public SpeechRecognition {
 public:
  AuthorizationStatus authorizationStatus() const override { return authorization; }
  void requestAuthorization(std::function<void(AuthorizationStatus)>) override {}
  bool hasDictationSetting() const override { return false; }
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view locale) override {
    return std::make_unique<Recognizer>(locale == "en-US");
  }
  void prepare(std::string_view locale) override { prepared.emplace_back(locale); }

  AuthorizationStatus authorization = AuthorizationStatus::authorized;
  std::vector<std::string> prepared;

 private:
  class Recognizer final : public SpeechRecognizer {
   public:
    explicit Recognizer(bool isInstalled) : isInstalled_(isInstalled) {}
    bool supportsOnDeviceRecognition() const override { return isInstalled_; }
    std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions) override { return nullptr; }
    std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>&,
                                                     ResultHandler) override {
      return nullptr;
    }

   private:
    const bool isInstalled_;
  };
};

class LegacySpeechBackendTest : public testing::Test {
 protected:
  struct : FakePlatform {
    PreparedRecognition speechRecognition;
  } fake_;
  PreparedRecognition& recognition_ = fake_.speechRecognition;
  Platform platform_ = platformOf(fake_);
  JSONLineWriter writer_{fake_.clock, fake_.standardOutput, fake_.standardError};
  DictationProbe dictation_{platform_};
  LegacySpeechBackend backend_{platform_, writer_, dictation_};
};

TEST_F(LegacySpeechBackendTest, AvailableSessionIsPrepared) {
  backend_.startSession("a", "en-US", {});
  EXPECT_EQ(recognition_.prepared, std::vector<std::string>{"en-US"});
}

TEST_F(LegacySpeechBackendTest, UnavailableSessionIsNotPrepared) {
  backend_.startSession("a", "ja-JP", {});
  recognition_.authorization = AuthorizationStatus::denied;
  backend_.startSession("b", "en-US", {});
  EXPECT_TRUE(recognition_.prepared.empty());
}

TEST_F(LegacySpeechBackendTest, StatusPreparesNothing) {
  backend_.emitStatus();
  EXPECT_TRUE(recognition_.prepared.empty());
}

}  // namespace
}  // namespace palaver
