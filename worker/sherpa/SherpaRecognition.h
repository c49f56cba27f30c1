// Recognizes speech with sherpa-onnx and the model in one folder.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/SpeechRecognition.h"
#include "worker/engine/StepReporter.h"

namespace palaver {

// Results and errors (domain "SherpaONNX", codes: SherpaErrorCode) arrive on the model's thread. Punctuation
// and case are the model's. All recognizers share the loaded model; the tasks of one recognizer run one after
// the other in the order of their start. Destroying a request ends its audio. Recognizers may outlive this
// object.
class SherpaRecognition final : public SpeechRecognition, public StepReporter {
 public:
  // Starts to load the model in `folder` for `locale` on a thread of its own. Failures to load reach the
  // tasks. Throws std::system_error when there is no thread.
  SherpaRecognition(std::filesystem::path folder, std::string locale);
  // The same with the library searched in other folders.
  SherpaRecognition(std::filesystem::path folder, std::string locale,
                    std::vector<std::filesystem::path> libraryFolders);
  ~SherpaRecognition() override;
  SherpaRecognition(const SherpaRecognition&) = delete;
  SherpaRecognition& operator=(const SherpaRecognition&) = delete;

  AuthorizationStatus authorizationStatus() const override { return AuthorizationStatus::authorized; }
  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override {
    handler(AuthorizationStatus::authorized);
  }
  // Returns a recognizer for the model's locale, null for any other.
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) override;

  void reportSteps(StepHandler handler) override;

 private:
  class Engine;
  class Channel;
  class Recognizer;

  const std::shared_ptr<Engine> engine_;
};

}  // namespace palaver
