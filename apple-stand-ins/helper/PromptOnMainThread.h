// A recognition service whose answer to the permission prompt comes on the main thread where its results do.
#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include "simulator/machine/SimulatedSpeechRecognition.h"

namespace palaver {

// The stand-in for the framework puts results on the main dispatch queue by itself, but passes the answer on
// where it comes. Apple's documentation leaves the thread open. Any thread.
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
