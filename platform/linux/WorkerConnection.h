// Starts a speech worker and talks to it until it ends.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/PlatformError.h"
#include "platform/SpeechRecognition.h"
#include "platform/linux/WorkerModel.h"
#include "platform/linux/WorkerSettings.h"

namespace palaver {

// Owns one process of the worker, its socket, and the thread that reads its answers.
//
// The worker inherits the three standard descriptors, all of them /dev/null, and the socket as descriptor 3,
// and nothing else. Any end of the process, a frame that cannot be decoded and a hang end the connection: the
// process is killed, and the handler of each running task is called once with the error.
//
// Frames are written by the calling thread, straight from the audio buffers, as long as the socket accepts
// them. The connection's thread writes the rest. Audio that waits is bounded, see FrameOutbox.
//
// Main thread, unless stated otherwise. Handlers are called on the connection's thread.
class WorkerConnection {
 public:
  // Starts the process, which begins to load the model. Throws PlatformError of workerErrorDomain. Must be
  // called on the main thread: the system kills the worker when the thread that started it ends.
  WorkerConnection(const WorkerModel& model, const WorkerSettings& settings);
  // Kills the process. No handler is called after this has returned.
  ~WorkerConnection();
  WorkerConnection(const WorkerConnection&) = delete;
  WorkerConnection& operator=(const WorkerConnection&) = delete;

  // Returns false once the connection has ended, for whatever reason. Any thread.
  bool isOpen() const;

  // Returns the time (WorkerSettings::now) at which the connection failed. None while it is open and when
  // it ended because it was idle. Any thread.
  std::optional<double> failedAt() const;

  // Opens a channel: one speaker's audio, one task at a time. Returns none once the connection has ended.
  std::optional<std::uint32_t> openChannel();
  // The channel's tasks continue to their end.
  void closeChannel(std::uint32_t channel);

  // Starts a task. Returns its number, or none once the connection has ended; the handler is then not
  // called. The functions below do nothing for tasks that have ended.
  std::optional<std::uint32_t> startTask(std::uint32_t channel, const RecognitionOptions& options,
                                         ResultHandler handler);
  // Starts a task of a connection that has begun to end: its handler is called with the reason. Returns its
  // number. Throws the reason, a PlatformError, when the end is over.
  std::uint32_t startFailingTask(ResultHandler handler);
  // Takes 16 kHz mono 16-bit audio.
  void append(std::uint32_t task, const std::shared_ptr<const PCMBuffer>& buffer);
  void endAudio(std::uint32_t task);
  // Returns the handler, which will not be called, unless that has already begun. Empty for tasks that have
  // ended.
  ResultHandler cancel(std::uint32_t task);

  // The process. For tests.
  pid_t processID() const;

 private:
  class Link;

  std::shared_ptr<Link> link_;
  std::thread thread_;
};

}  // namespace palaver
