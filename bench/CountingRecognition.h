// Replaces speech recognition by counting, so that the benchmarks measure the rest of the helper.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>

#include "platform/SpeechRecognition.h"

namespace palaver::bench {

// Every locale is installed and authorized. Audio is counted and dropped. Live tasks deliver no results. A
// task without partial results (the Dictation probe) reports no speech synchronously, so that the probe
// does not wait.
class CountingRecognition final : public SpeechRecognition {
 public:
  // Buffers of live tasks so far. Main thread.
  std::uint64_t buffers() const { return buffers_; }

  // Called on the main thread for each of these buffers, if set.
  std::function<void()> onBuffer;

  AuthorizationStatus authorizationStatus() const override { return AuthorizationStatus::authorized; }
  void requestAuthorization(std::function<void(AuthorizationStatus)> handler) override {
    handler(AuthorizationStatus::authorized);
  }
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view) override {
    return std::make_unique<Recognizer>(*this);
  }

 private:
  struct Request final : RecognitionRequest {
    Request(CountingRecognition& recognition, bool isLive) : owner(recognition), live(isLive) {}
    void append(std::shared_ptr<const PCMBuffer>) override {
      if (!live) return;
      ++owner.buffers_;
      if (owner.onBuffer) owner.onBuffer();
    }
    void endAudio() override {
      if (!live && handler)
        std::exchange(handler, nullptr)(std::nullopt, PlatformError("bench", 1110, "No speech"));
    }
    CountingRecognition& owner;
    const bool live;
    ResultHandler handler;
  };
  struct Task final : RecognitionTask {
    void cancel() override {}
  };
  struct Recognizer final : SpeechRecognizer {
    explicit Recognizer(CountingRecognition& recognition) : owner(recognition) {}
    bool supportsOnDeviceRecognition() const override { return true; }
    std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions options) override {
      return std::make_shared<Request>(owner, options.shouldReportPartialResults);
    }
    std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                     ResultHandler handler) override {
      static_cast<Request&>(*request).handler = std::move(handler);
      return std::make_unique<Task>();
    }
    CountingRecognition& owner;
  };

  std::uint64_t buffers_ = 0;
};

}  // namespace palaver::bench
