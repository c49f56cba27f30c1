// Replaces the engine of a speech worker by one that only reports when audio has reached it.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/SpeechRecognition.h"

namespace palaver::bench {

// Takes audio on a thread of its own, like an engine. Answers each buffer with a partial whose text is the
// monotonic time (seconds) at which that thread had it. Serves every locale. Ends a task with its audio.
class TimingEngine final : public SpeechRecognition {
 public:
  TimingEngine();
  ~TimingEngine() override;
  TimingEngine(const TimingEngine&) = delete;
  TimingEngine& operator=(const TimingEngine&) = delete;

  AuthorizationStatus authorizationStatus() const override { return AuthorizationStatus::authorized; }
  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override {
    handler(AuthorizationStatus::authorized);
  }
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view locale) override;

 private:
  class Queue;

  const std::shared_ptr<Queue> queue_;
  std::thread thread_;
};

}  // namespace palaver::bench
