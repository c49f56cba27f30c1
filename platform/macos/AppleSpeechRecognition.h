// SFSpeechRecognizer, its requests, tasks and results, and the permission for it.
//
// Threads: as the contract has it. Results come on the main thread, from the main dispatch queue, which is
// where SFSpeechRecognizer delivers them unless told otherwise.
#pragma once

#include "platform/SpeechRecognition.h"

namespace palaver {

class AppleSpeechRecognition final : public SpeechRecognition {
 public:
  AuthorizationStatus authorizationStatus() const override;

  // Ends the process when the program has no NSSpeechRecognitionUsageDescription. The answer comes on a
  // thread of the system's choice.
  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override;

  // The system may serve a locale close to the one asked for. Each recognizer costs the system something that
  // it does not give back: make one and keep it. Source: public reports of such a leak.
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view localeIdentifier) override;
};

}  // namespace palaver
