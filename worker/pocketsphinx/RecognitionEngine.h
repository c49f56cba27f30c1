// Runs the recognition threads. Each owns language models and decoders, takes audio from a queue and reports
// through result handlers.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/linux/models/SpeechModelFiles.h"
#include "worker/engine/EngineThread.h"

namespace palaver {

// Runs one engine thread. The library's decoders serve one thread at a time, and decoders of different
// threads cannot share its language model, so everything loaded here stays on this thread. The thread
// serves the channels round-robin in steps of 100 ms of audio, so that a channel with much audio does not
// delay the others.
class RecognitionEngine {
 public:
  // Identifies a channel: one recognizer with its decoder, which is created when its first task begins.
  using ChannelID = std::uint64_t;

  // Starts the thread. Throws std::system_error.
  RecognitionEngine();
  ~RecognitionEngine();
  RecognitionEngine(const RecognitionEngine&) = delete;
  RecognitionEngine& operator=(const RecognitionEngine&) = delete;

  // Any thread. The functions below return immediately.
  void openChannel(ChannelID channel, const SpeechModelFiles& files);
  // Destroys the channel and its decoder after its last task.
  void closeChannel(ChannelID channel);
  // Queues a task. A channel's tasks run one after the other.
  void start(ChannelID channel, std::shared_ptr<RecognitionJob> job);

  // Takes the audio of started tasks.
  EngineThread& thread() { return thread_; }

  // Number of channels opened and not closed.
  std::size_t channelCount() const { return channelCount_; }

 private:
  class Channels;

  explicit RecognitionEngine(std::unique_ptr<Channels> channels);

  Channels& channels_;  // used on the thread only
  EngineThread thread_;
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
