#include "apple-stand-ins/helper/StatedServices.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <thread>
#include <utility>

namespace palaver {

namespace {

constexpr std::array<std::string_view, 9> states{"ready",      "not-determined", "denied",
                                                 "restricted", "no-recognizer",  "no-model",
                                                 "no-network", "dictation-off",  "no-transcriber"};

constexpr std::string_view japanese = "ja-JP", servingLocale = "en-US";

bool lacksModel(const std::string& state) {
  return state == "no-model" || state == "no-network";
}

// Fails every task with the error that switched-off Dictation is believed to give on a Japanese system.
class RecognizerWithoutDictation final : public SpeechRecognizer {
 public:
  bool supportsOnDeviceRecognition() const override { return true; }

  std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions) override {
    return std::make_shared<Request>();
  }

  std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>&,
                                                   ResultHandler handler) override {
    std::thread([handler = std::move(handler)] {
      handler(std::nullopt, PlatformError("kLSRErrorDomain", 201, "Siriと音声入力が無効になっています"));
    }).detach();
    return std::make_unique<Task>();
  }

 private:
  struct Request final : RecognitionRequest {
    void append(std::shared_ptr<const PCMBuffer>) override {}
    void endAudio() override {}
  };
  struct Task final : RecognitionTask {
    void cancel() override {}
  };
};

class RecognizerWithoutModel final : public SpeechRecognizer {
 public:
  explicit RecognizerWithoutModel(std::unique_ptr<SpeechRecognizer> recognizer)
      : recognizer_(std::move(recognizer)) {}
  bool supportsOnDeviceRecognition() const override { return false; }
  std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions options) override {
    return recognizer_->makeRequest(std::move(options));
  }
  std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                   ResultHandler handler) override {
    return recognizer_->recognitionTask(request, std::move(handler));
  }

 private:
  const std::unique_ptr<SpeechRecognizer> recognizer_;
};

class StatedRecognition final : public SpeechRecognition {
 public:
  StatedRecognition(SpeechRecognition& recognition, std::string state)
      : recognition_(recognition), state_(std::move(state)), authorization_(initialAuthorization()) {}

  AuthorizationStatus authorizationStatus() const override { return authorization_; }

  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override {
    if (authorization_ == AuthorizationStatus::notDetermined)
      authorization_ = AuthorizationStatus::authorized;
    handler(authorization_);
  }

  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) override {
    if (state_ == "no-recognizer") return nullptr;
    auto recognizer =
        recognition_.makeRecognizer(localeIdentifier == japanese ? servingLocale : localeIdentifier);
    if (!recognizer) return nullptr;
    if (state_ == "dictation-off") return std::make_unique<RecognizerWithoutDictation>();
    if (lacksModel(state_)) return std::make_unique<RecognizerWithoutModel>(std::move(recognizer));
    return recognizer;
  }

 private:
  AuthorizationStatus initialAuthorization() const {
    if (state_ == "not-determined") return AuthorizationStatus::notDetermined;
    if (state_ == "denied") return AuthorizationStatus::denied;
    if (state_ == "restricted") return AuthorizationStatus::restricted;
    return AuthorizationStatus::authorized;
  }

  SpeechRecognition& recognition_;
  const std::string state_;
  std::atomic<AuthorizationStatus> authorization_;
};

class StatedAnalysis final : public SpeechAnalysis, public AssetInventory {
 public:
  StatedAnalysis(SpeechAnalysis& analysis, std::string state)
      : analysis_(analysis),
        state_(std::move(state)),
        isInstalled_(std::make_shared<std::atomic<bool>>(!lacksModel(state_))) {}

  bool isTranscriberAvailable() const override {
    return state_ != "no-transcriber" && analysis_.isTranscriberAvailable();
  }
  void supportedLocale(std::string_view equivalentTo,
                       UniqueFunction<void(std::optional<std::string>)> completion) override {
    if (state_ == "no-transcriber") return completion(std::nullopt);
    analysis_.supportedLocale(equivalentTo, std::move(completion));
  }
  std::shared_ptr<SpeechTranscriber> makeTranscriber(std::string_view supportedLocale,
                                                     TranscriberPreset preset) override {
    return analysis_.makeTranscriber(supportedLocale, preset);
  }
  void bestAvailableAudioFormat(const std::shared_ptr<SpeechTranscriber>& compatibleWith,
                                UniqueFunction<void(std::optional<AudioFormat>)> completion) override {
    analysis_.bestAvailableAudioFormat(compatibleWith, std::move(completion));
  }
  AnalyzerWithInput makeAnalyzer(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                 const std::vector<std::string>& contextualStrings) override {
    return analysis_.makeAnalyzer(transcriber, contextualStrings);
  }
  AssetInventory& assetInventory() override { return *this; }

  void status(const std::shared_ptr<SpeechTranscriber>& transcriber,
              UniqueFunction<void(AssetStatus)> completion) override {
    if (!*isInstalled_) return completion(AssetStatus::supported);
    analysis_.assetInventory().status(transcriber, std::move(completion));
  }
  void assetInstallationRequest(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                UniqueFunction<void(InstallationRequest)> completion) override {
    if (*isInstalled_)
      return analysis_.assetInventory().assetInstallationRequest(transcriber, std::move(completion));
    completion(std::make_shared<Installation>(state_ == "no-model", isInstalled_));
  }

 private:
  class Installation final : public AssetInstallationRequest {
   public:
    Installation(bool hasNetwork, std::shared_ptr<std::atomic<bool>> isInstalled)
        : hasNetwork_(hasNetwork), isInstalled_(std::move(isInstalled)) {}
    void downloadAndInstall(FallibleCompletion completion) override {
      if (!hasNetwork_)
        return completion(
            PlatformError("NSURLErrorDomain", -1009, "The Internet connection appears to be offline."));
      *isInstalled_ = true;
      completion(std::nullopt);
    }

   private:
    const bool hasNetwork_;
    const std::shared_ptr<std::atomic<bool>> isInstalled_;
  };

  SpeechAnalysis& analysis_;
  const std::string state_;
  const std::shared_ptr<std::atomic<bool>> isInstalled_;
};

}  // namespace

bool isMachineState(const std::string& state) {
  return std::find(states.begin(), states.end(), state) != states.end();
}

std::unique_ptr<SpeechRecognition> recognitionInState(SpeechRecognition& recognition, std::string state) {
  return std::make_unique<StatedRecognition>(recognition, std::move(state));
}

std::unique_ptr<SpeechAnalysis> analysisInState(SpeechAnalysis& analysis, std::string state) {
  return std::make_unique<StatedAnalysis>(analysis, std::move(state));
}

}  // namespace palaver
