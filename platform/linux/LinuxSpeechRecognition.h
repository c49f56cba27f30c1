// Speech recognition on Linux: nobody is asked for permission, and a locale is served when its model is
// installed.
#pragma once

#include <filesystem>
#include <memory>

#include "platform/SpeechRecognition.h"
#include "platform/linux/SpeechModelFiles.h"

namespace palaver {

class RecognitionEngines;

// Recognizers may outlive it.
class LinuxSpeechRecognition final : public SpeechRecognition {
 public:
  // Models are looked for under `modelRoot`, a directory for each locale.
  explicit LinuxSpeechRecognition(std::filesystem::path modelRoot = systemModelRoot);

  AuthorizationStatus authorizationStatus() const override { return AuthorizationStatus::authorized; }
  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override {
    handler(AuthorizationStatus::authorized);
  }
  // Every well-formed identifier is supported; see modelDirectoryName().
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) override;

 private:
  const std::filesystem::path modelRoot_;
  const std::shared_ptr<RecognitionEngines> engines_;
};

}  // namespace palaver
