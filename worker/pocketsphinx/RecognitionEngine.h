// Runs the recognition threads. Each owns language models and decoders, takes audio from a queue and reports
// through result handlers.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "platform/SpeechRecognition.h"
#include "platform/linux/SpeechModelFiles.h"

namespace palaver {

// Holds one task, from the creation of the request to its end. Once the task has been started, everything but
// `isCancelled` belongs to the engine's thread.
struct RecognitionJob {
  RecognitionOptions options;
  ResultHandler handler;
  std::vector<std::shared_ptr<const PCMBuffer>> audio;  // not yet recognized, oldest first
  std::size_t buffersDone = 0;                          // buffers of `audio`
  std::uint32_t framesDone = 0;                         // frames of the first unfinished buffer
  bool audioEnded = false;
  std::atomic<bool> isCancelled = false;
};

// Runs one engine thread. The library's decoders serve one thread at a time, and decoders of different
// threads cannot share its language model, so everything loaded here stays on this thread. The thread
// serves the channels round-robin in steps of 100 ms of audio, so that a channel with much audio does not
// delay the others.
class RecognitionEngine {
 public:
  // Identifies a channel: one recognizer with its decoder, which is created when its first task begins.
  using ChannelID = std::uint64_t;

  // Starts the thread.
  RecognitionEngine();
  // Drops all work. No handler is called after this has returned.
  ~RecognitionEngine();
  RecognitionEngine(const RecognitionEngine&) = delete;
  RecognitionEngine& operator=(const RecognitionEngine&) = delete;

  // Any thread. The functions below return immediately.
  void openChannel(ChannelID channel, const SpeechModelFiles& files);
  // Destroys the channel and its decoder after its last task.
  void closeChannel(ChannelID channel);
  // Queues a task. A channel's tasks run one after the other.
  void start(ChannelID channel, std::shared_ptr<RecognitionJob> job);
  void append(std::shared_ptr<RecognitionJob> job, std::shared_ptr<const PCMBuffer> buffer);
  void endAudio(std::shared_ptr<RecognitionJob> job);
  // Drops the rest of the task's audio.
  void cancel(const std::shared_ptr<RecognitionJob>& job);

  // Number of channels opened and not closed.
  std::size_t channelCount() const { return channelCount_; }

 private:
  class Worker;

  std::shared_ptr<Worker> worker_;
  std::atomic<std::size_t> channelCount_ = 0;
};

// Owns the engines of a process. The first task starts the first engine. Another is started when the existing
// ones have many channels. Main thread.
class RecognitionEngines {
 public:
  // Real-time channels that one thread can serve with a margin.
  static constexpr std::size_t channelsPerEngine = 5;
  // Limit of threads, independent of the number of channels.
  static constexpr std::size_t maxEngines = 2;

  // Returns the engine for one more channel. Throws std::system_error when no thread can be started.
  std::shared_ptr<RecognitionEngine> engineForNewChannel();

 private:
  std::vector<std::shared_ptr<RecognitionEngine>> engines_;
};

}  // namespace palaver
