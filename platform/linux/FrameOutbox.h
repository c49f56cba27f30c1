// Queues frames for a socket and writes them without copying samples.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "platform/AudioBuffer.h"
#include "platform/linux/WorkerFrames.h"

namespace palaver {

// Frames leave in the order in which they were pushed. Audio that waits is bounded for each task: beyond
// `maxWaitingFrames` the task's oldest waiting audio is dropped. The receiver sees the gap in the positions
// of the audio frames.
//
// Not thread-safe.
class FrameOutbox {
 public:
  // Most frames of waiting audio of one task: 60 s.
  static constexpr std::uint64_t maxWaitingFrames = std::uint64_t{60} * workerSampleRate;

  void push(std::string frame);
  // Takes a range of a buffer of 16-bit samples, at most maxSamplesOfFrame. `position`: frames from the
  // request's first sample.
  void pushAudio(std::uint32_t task, std::uint64_t position, std::shared_ptr<const PCMBuffer> buffer,
                 std::uint32_t first, std::uint32_t frames);
  // Drops the waiting audio of a cancelled task.
  void dropAudio(std::uint32_t task);

  // Writes what the socket accepts now. Returns false when the other end is closed. Raises no SIGPIPE.
  bool flush(int socket);

  bool isEmpty() const { return entries_.empty(); }
  // Returns the frames of the task that wait.
  std::uint64_t waitingFrames(std::uint32_t task) const;

 private:
  struct Entry {
    std::string control;  // a whole frame, or empty for audio
    AudioPreamble preamble;
    std::uint32_t task;
    std::shared_ptr<const PCMBuffer> buffer;
    std::uint32_t first;
    std::uint32_t frames;

    std::size_t bytes() const;
  };

  void forget(const Entry& entry);
  bool isPartlyWritten(const Entry& entry) const { return &entry == &entries_.front() && written_ > 0; }

  std::deque<Entry> entries_;
  std::size_t written_ = 0;  // bytes of the first entry
  std::map<std::uint32_t, std::uint64_t> waiting_;
};

}  // namespace palaver
