// Implements requests and tasks for engines that run on a thread of their own.
#pragma once

#include <memory>

#include "platform/SpeechRecognition.h"
#include "worker/engine/EngineThread.h"

namespace palaver {

// Takes the tasks of one channel. Shared by the channel's recognizer, requests and tasks.
class JobChannel {
 public:
  virtual ~JobChannel() = default;

  // Starts a task. The tasks of one channel run one after the other. Throws std::system_error when there is
  // no thread.
  virtual void start(std::shared_ptr<RecognitionJob> job) = 0;

  // Returns the thread that runs the tasks.
  virtual EngineThread& thread() = 0;

 protected:
  JobChannel() = default;
  JobChannel(const JobChannel&) = default;
  JobChannel& operator=(const JobChannel&) = default;
};

// Creates a request of the channel. Destroying it ends its audio.
std::shared_ptr<RecognitionRequest> makeJobRequest(std::shared_ptr<JobChannel> channel,
                                                   RecognitionOptions options);

// Starts the task of a request that makeJobRequest() has created. Throws what JobChannel::start() throws.
std::unique_ptr<RecognitionTask> startTask(RecognitionRequest& request, ResultHandler handler);

}  // namespace palaver
