// Decides when a speech worker hangs and when it is no longer needed.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>

#include "platform/linux/WorkerSettings.h"

namespace palaver {

// Keeps the open channels with their tasks, and what each still expects of the worker. The tasks of a channel
// run one after the other, so only the first of them is watched.
//
// A task expects progress while a second or more of its audio has not been consumed, or after its audio has
// ended. Progress is an answer or consumed audio, and for all tasks the start of another decoding, where an
// engine serves them on one thread and reports it. Tasks that wait for their turn on a slow machine are
// therefore no hang. Until the next decoding starts, the limit is longer by WorkerLimits::decodingPace times
// the audio that is being decoded.
//
// Time counts only between two checks that follow each other closely. A helper that was stopped together with
// its worker, or starved, therefore does not end the worker when it resumes.
//
// Not thread-safe. Times are ms of any clock that is never set.
class WorkerWatchdog {
 public:
  // Frames that may be outstanding without being watched, because the worker reports them in larger steps.
  static constexpr std::uint64_t unwatchedFrames = 16000;

  enum class Verdict { good, loadingHangs, answeringHangs, idle };

  WorkerWatchdog(const WorkerLimits& limits, double now) : limits_(limits), checkedAt_(now) {}

  void loaded();
  void channelOpened(std::uint32_t channel);
  // The channel's tasks are still watched to their end.
  void channelClosed(std::uint32_t channel);
  void taskStarted(std::uint32_t channel, std::uint32_t task);
  void audioSent(std::uint32_t task, std::uint64_t frames);
  void audioEnded(std::uint32_t task);
  // `frames`: all that the worker has consumed of the task's audio.
  void audioConsumed(std::uint32_t task, std::uint64_t frames);
  void answered(std::uint32_t task);
  // The engine begins to decode `frames` frames of audio, of whichever task.
  void decodingBegan(std::uint64_t frames);
  // The task has ended or was cancelled.
  void taskEnded(std::uint32_t task);

  // Call about every WorkerLimits::check ms while isWatching().
  Verdict check(double now);
  // Returns the ms without progress after which a task counts as hung.
  double answeringLimit() const;
  // Returns whether the worker loads or has a channel or a task.
  bool isWatching() const { return !loaded_ || !channels_.empty(); }

 private:
  struct Task {
    std::uint32_t number;
    std::uint64_t sent = 0;      // frames
    std::uint64_t consumed = 0;  // frames
    bool audioEnded = false;

    bool expectsProgress() const { return audioEnded || sent >= consumed + unwatchedFrames; }
  };
  struct Channel {
    bool isOpen = true;
    std::deque<Task> tasks;
    std::optional<double> waitingSince;  // watched time; none: nothing is expected
  };

  Channel* channelOf(std::uint32_t task);
  Task* find(std::uint32_t task);
  void progressed(std::uint32_t task);
  void eraseIfDone(std::uint32_t channel);

  const WorkerLimits limits_;
  bool loaded_ = false;
  double checkedAt_;
  double watched_ = 0;               // ms that counted since the start
  std::uint64_t decodedFrames_ = 0;  // of the newest decoding
  double waitsForUseSince_ = 0;      // watched time at which the last channel was closed
  std::map<std::uint32_t, Channel> channels_;
  std::map<std::uint32_t, std::uint32_t> channelOfTask_;
};

}  // namespace palaver
