// Speech recognition on Linux: nobody is asked for permission, and a locale is served when its model is
// installed.
#pragma once

#include "platform/SpeechRecognition.h"

namespace palaver {

class LinuxSpeechRecognition final : public SpeechRecognition {
 public:
  AuthorizationStatus authorizationStatus() const override { return AuthorizationStatus::authorized; }
  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override {
    handler(AuthorizationStatus::authorized);
  }
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) override;
};

}  // namespace palaver
