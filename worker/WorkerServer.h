// Serves one helper: receives audio, lets an engine recognize it, and sends back what it recognizes.
#pragma once

#include <cstdint>
#include <deque>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/SpeechRecognition.h"
#include "platform/linux/WorkerFrames.h"
#include "platform/posix/Descriptor.h"
#include "worker/engine/StepReporter.h"

namespace palaver {

// The error of a worker that has no memory or no thread for its engine.
PlatformError engineCannotStart(const std::exception& error);

// Calls the engine through the recognition contract, on the thread that calls run(): one recognizer for each
// channel. Begins with the recognizers of the first channels and runs an empty task on each, so that the
// model and all that a channel needs are loaded before the first word. The end of the first empty task tells
// whether the model could be loaded.
//
// Audio is handed to the engine up to `engineFrames` ahead of what the engine has taken. An engine has taken
// a buffer when it releases it, so it must do that once it has read the samples. The rest waits here, at most
// `maxWaitingFrames` for each task; beyond that the oldest is dropped. Times of the results still count from
// the request's first sample.
class WorkerServer {
 public:
  // Recognizers created before the first channel: a meeting has two sources.
  static constexpr std::size_t preparedChannels = 2;
  // Most frames that an engine holds for a task and that wait for it: 30 s each.
  static constexpr std::uint64_t engineFrames = std::uint64_t{30} * workerSampleRate;
  static constexpr std::uint64_t maxWaitingFrames = std::uint64_t{30} * workerSampleRate;

  // `socket`: connected with the helper. The engine outlives the server.
  WorkerServer(SpeechRecognition& engine, std::string locale, Descriptor socket);
  ~WorkerServer();
  WorkerServer(const WorkerServer&) = delete;
  WorkerServer& operator=(const WorkerServer&) = delete;

  // Serves until the helper closes the socket. Throws MalformedFrame.
  void run();

 private:
  class Sender;
  class TaskReport;
  struct WaitingBuffer;
  struct Task;

  void reportSteps(StepReporter& reporter);
  void prepareChannels();
  void handle(const Frame& frame);
  void startTask(std::uint32_t number, StartFrame frame);
  void takeAudio(Task& task, const AudioFrame& frame);
  void feed(Task& task);
  void feedAll();
  void eraseEnded();
  SpeechRecognizer& recognizerOf(std::uint32_t channel);

  SpeechRecognition& engine_;
  const std::string locale_;
  const std::shared_ptr<Sender> sender_;
  std::deque<std::unique_ptr<SpeechRecognizer>> prepared_;
  std::map<std::uint32_t, std::unique_ptr<SpeechRecognizer>> channels_;
  std::map<std::uint32_t, Task> tasks_;
};

}  // namespace palaver
