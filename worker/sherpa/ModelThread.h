// Runs one loaded model on a thread of its own and serves the channels that share it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "worker/engine/EngineThread.h"
#include "worker/engine/StepReporter.h"
#include "worker/sherpa/LoadedModel.h"

namespace palaver {

// The tasks of one channel run one after the other. Among channels, a task whose audio has ended comes first,
// because a person waits for its final; otherwise they are served in turn. Channels that are ready together
// are decoded in one batch where the model takes batches; none waits for others to become ready. All audio
// that has arrived is taken before the next decoding, so an overloaded model decodes fewer partial results
// instead of falling behind.
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
  ~ModelThread();
  ModelThread(const ModelThread&) = delete;
  ModelThread& operator=(const ModelThread&) = delete;

  void start(ChannelID channel, std::shared_ptr<RecognitionJob> job);

  // Calls the handler before each step from now on, with the samples of all channels in it.
  void reportSteps(StepHandler handler);

  // Takes the audio of started tasks.
  EngineThread& thread() { return thread_; }

 private:
  class Channels;

  explicit ModelThread(std::unique_ptr<Channels> channels);

  Channels& channels_;  // used on the thread only
  EngineThread thread_;
};

}  // namespace palaver
