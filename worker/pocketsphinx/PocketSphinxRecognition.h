// Implements speech recognition on Linux. No permission is needed, and a locale is served when its
// model is installed.
#pragma once

#include <filesystem>
#include <memory>

#include "platform/SpeechRecognition.h"
#include "platform/linux/models/SpeechModelFiles.h"

namespace palaver {

class RecognitionEngines;

// Recognizers may outlive it.
class PocketSphinxRecognition final : public SpeechRecognition {
 public:
  // Searches models under `modelRoot`, which has one directory per locale.
  explicit PocketSphinxRecognition(std::filesystem::path modelRoot = systemModelRoot);

  AuthorizationStatus authorizationStatus() const override { return AuthorizationStatus::authorized; }
  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override {
    handler(AuthorizationStatus::authorized);
  }
  // Supports every well-formed identifier. See modelDirectoryName().
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) override;

 private:
  const std::filesystem::path modelRoot_;
  const std::shared_ptr<RecognitionEngines> engines_;
};

}  // namespace palaver
