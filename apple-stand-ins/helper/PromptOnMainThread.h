// Wraps a recognition service and delivers the permission answer on the main thread, as its results are.
#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include "simulator/machine/SimulatedSpeechRecognition.h"

namespace palaver {

// The framework stand-in puts results on the main dispatch queue but forwards the permission answer on the
// thread where it arrives. Apple's documentation leaves that thread open. Any thread.
class PromptOnMainThread final : public SpeechRecognition {
 public:
  explicit PromptOnMainThread(SimulatedSpeechRecognition& service) : service_(service) {}

  AuthorizationStatus authorizationStatus() const override { return service_.authorizationStatus(); }
  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override;
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) override {
    return service_.makeRecognizer(localeIdentifier);
  }

 private:
  SimulatedSpeechRecognition& service_;
};

}  // namespace palaver
