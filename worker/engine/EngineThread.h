// Runs an engine on a thread of its own, with messages from the others.
#pragma once

#include <memory>

#include "platform/UniqueFunction.h"
#include "worker/engine/RecognitionJob.h"

namespace palaver {

// Any thread, unless stated otherwise. The functions return immediately.
class EngineThread {
 public:
  // What runs on the thread, all of it, and the destructor too.
  class Work {
   public:
    virtual ~Work() = default;

    virtual void begin() {}
    // Whether step() has something to do now. Asked after each step and each message.
    virtual bool isDue() const = 0;
    // Does a part of what is due. Messages are handled between two steps.
    virtual void step() = 0;

   protected:
    Work() = default;
    Work(const Work&) = default;
    Work& operator=(const Work&) = default;
  };

  // Starts the thread. Throws std::system_error.
  explicit EngineThread(std::unique_ptr<Work> work);
  // Drops all work after the step under way. On another thread it waits for that.
  ~EngineThread();
  EngineThread(const EngineThread&) = delete;
  EngineThread& operator=(const EngineThread&) = delete;

  // Queues a message to the work. Messages are handled in order.
  void post(UniqueFunction<void()> message);

  // Append and end the audio of a task that has been started.
  void append(std::shared_ptr<RecognitionJob> job, std::shared_ptr<const PCMBuffer> buffer);
  void endAudio(std::shared_ptr<RecognitionJob> job);
  // Drops the rest of the task's audio, and its results.
  void cancel(const std::shared_ptr<RecognitionJob>& job);

 private:
  class Loop;

  const std::shared_ptr<Loop> loop_;
};

}  // namespace palaver
