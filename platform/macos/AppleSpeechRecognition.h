// Implements the contract with SFSpeechRecognizer, its requests, tasks and results, and its permission.
//
// kLSRErrorDomain 201, which means that Dictation is off, always has its English text "Siri and Dictation are
// disabled".
//
// Threads: as in the contract. Results arrive on the main thread from the main dispatch queue, the
// default of SFSpeechRecognizer.
#pragma once

#include "platform/SpeechRecognition.h"

namespace palaver {

class AppleSpeechRecognition final : public SpeechRecognition {
 public:
  AuthorizationStatus authorizationStatus() const override;

  // Ends the process when the program has no NSSpeechRecognitionUsageDescription. The answer arrives on a
  // thread of the system's choice.
  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override;

  // The system may serve a locale close to the requested one. Create one recognizer and keep it, because each
  // one may leak system resources (unverified).
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) override;
};

}  // namespace palaver
