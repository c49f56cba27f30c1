#include "modes/AuthorizationRequest.h"

#include <memory>
#include <nlohmann/json.hpp>

#include "core/BackendSelection.h"
#include "core/JSONLineWriter.h"
#include "platform/MainQueue.h"
#include "platform/Platform.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

namespace {

constexpr double waitSliceMilliseconds = 50;

}  // namespace

void requestLegacyAuthorization(Platform& platform, JSONLineWriter& writer) {
  if (hasSpeechAnalyzer(platform.process)) {
    writer.write({{"type", "helper.authorization"}, {"status", "not-required"}, {"authorized", true}});
    return;
  }
  // Shared with the handler, which may be called on any thread.
  const std::shared_ptr<Semaphore> answered = platform.mainQueue.makeSemaphore();
  platform.speechRecognition.requestAuthorization([answered, &writer](AuthorizationStatus status) {
    writer.write({{"type", "helper.authorization"},
                  {"status", authorizationLabel(status)},
                  {"authorized", status == AuthorizationStatus::authorized}});
    answered->signal();
  });
  // The main run loop serves the prompt, so the wait alternates with slices of it.
  while (!answered->wait(waitSliceMilliseconds)) platform.mainQueue.runSlice(waitSliceMilliseconds);
}

}  // namespace palaver
