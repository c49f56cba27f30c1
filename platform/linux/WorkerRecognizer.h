// Recognizes one locale in the audio of one channel, in a speech worker.
#pragma once

#include <functional>
#include <memory>

#include "platform/SpeechRecognition.h"

namespace palaver {

class MainQueue;
class SpeechWorker;

// Results and errors arrive on the connection's thread. An error that occurs before the worker has taken the
// task arrives on the main thread, as a job of the main queue. Errors that the engine did not report itself
// have the domain "SpeechWorker" and a WorkerErrorCode. The tasks of one recognizer run one after the other
// in the order of their start, because they are one speaker's audio. A task does not survive its worker.
// Destroying a request ends its audio.
//
// Audio that waits is bounded: beyond 60 s the oldest audio of a task is dropped, in the helper and again in
// the worker. Times still count from the request's first sample.
class WorkerRecognizer final : public SpeechRecognizer {
 public:
  // Cheap: the first task starts the worker unless it runs. `isInstalled` checks the files of the model.
  WorkerRecognizer(std::shared_ptr<SpeechWorker> worker, MainQueue& mainQueue,
                   std::function<bool()> isInstalled);
  ~WorkerRecognizer() override;

  bool supportsOnDeviceRecognition() const override { return isInstalled_(); }
  std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions options) override;
  std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                   ResultHandler handler) override;

 private:
  class Channel;
  class Request;
  class Task;
  struct Start;

  const std::shared_ptr<Channel> channel_;
  const std::function<bool()> isInstalled_;
};

}  // namespace palaver
