// Runs one loaded model on a thread of its own and serves the channels that share it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/SpeechRecognition.h"
#include "worker/sherpa/LoadedModel.h"

namespace palaver {

// Holds one task, from the creation of its request to its end. Once the task has been started, everything but
// `isCancelled` belongs to the model's thread.
struct TranscriptionJob {
  RecognitionOptions options;
  ResultHandler handler;
  std::vector<std::shared_ptr<const PCMBuffer>> audio;  // not yet taken by the transcriber, oldest first
  bool audioEnded = false;
  std::atomic<bool> isCancelled = false;
};

// The tasks of one channel run one after the other. Among channels, a task whose audio has ended comes first,
// because a person waits for its final; otherwise they are served in turn. All audio that has arrived is
// taken before the next decoding, so an overloaded model decodes fewer partial results instead of falling
// behind.
//
// Any thread, unless stated otherwise. The functions return immediately.
class ModelThread {
 public:
  using ChannelID = std::uint64_t;

  // Loads the model on the thread. Called again for the next task when it has thrown: PlatformError or
  // std::exception.
  using Loader = std::function<std::unique_ptr<LoadedModel>()>;

  // Starts the thread, which loads the model at once. Throws std::system_error.
  explicit ModelThread(Loader load);
  // Drops all work, after the decoding step under way. No handler is called after this has returned.
  ~ModelThread();
  ModelThread(const ModelThread&) = delete;
  ModelThread& operator=(const ModelThread&) = delete;

  void start(ChannelID channel, std::shared_ptr<TranscriptionJob> job);
  void append(std::shared_ptr<TranscriptionJob> job, std::shared_ptr<const PCMBuffer> buffer);
  void endAudio(std::shared_ptr<TranscriptionJob> job);
  void cancel(const std::shared_ptr<TranscriptionJob>& job);

 private:
  class Worker;

  const std::shared_ptr<Worker> worker_;
};

}  // namespace palaver
