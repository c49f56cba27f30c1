// The threads that recognize: each owns language models and decoders, takes audio by queue and answers
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

// One task, from the request's making to its end. Everything but `isCancelled` belongs to the engine's thread
// once the task has been started.
struct RecognitionJob {
  RecognitionOptions options;
  ResultHandler handler;
  std::vector<std::shared_ptr<const PCMBuffer>> audio;  // not yet recognized, oldest first
  std::size_t buffersDone = 0;                          // of `audio`
  std::uint32_t framesDone = 0;                         // of the first buffer that is not done
  bool audioEnded = false;
  std::atomic<bool> isCancelled = false;
};

// One engine thread. The library's decoders are for one thread at a time, and its language model may be
// shared by decoders of one thread only; so whatever is loaded here stays here. The thread's work goes round
// the channels in steps of 100 ms of audio, so that a channel with much audio does not hold up the others.
class RecognitionEngine {
 public:
  // Identifies a channel: one recognizer with its decoder, made when its first task begins.
  using ChannelID = std::uint64_t;

  // Starts the thread.
  RecognitionEngine();
  // Abandons all work: no handler is called any more once this has returned.
  ~RecognitionEngine();
  RecognitionEngine(const RecognitionEngine&) = delete;
  RecognitionEngine& operator=(const RecognitionEngine&) = delete;

  // Any thread; these return at once.
  void openChannel(ChannelID channel, const SpeechModelFiles& files);
  // The channel goes, with its decoder, after its last task.
  void closeChannel(ChannelID channel);
  // A channel's tasks are worked off one after another.
  void start(ChannelID channel, std::shared_ptr<RecognitionJob> job);
  void append(std::shared_ptr<RecognitionJob> job, std::shared_ptr<const PCMBuffer> buffer);
  void endAudio(std::shared_ptr<RecognitionJob> job);
  // Drops what is left of the task's audio.
  void cancel(const std::shared_ptr<RecognitionJob>& job);

  // Channels opened and not closed.
  std::size_t channelCount() const { return channelCount_; }

 private:
  class Worker;

  std::shared_ptr<Worker> worker_;
  std::atomic<std::size_t> channelCount_ = 0;
};

// The engines of a process: the first is started with the first task, another when the ones there are have
// many channels. Main thread.
class RecognitionEngines {
 public:
  // Channels in real time that one thread can serve with room to spare.
  static constexpr std::size_t channelsPerEngine = 5;
  // More threads than this are not started, however many channels there are.
  static constexpr std::size_t maxEngines = 2;

  // The engine for one more channel. Throws std::system_error when no thread can be started.
  std::shared_ptr<RecognitionEngine> engineForNewChannel();

 private:
  std::vector<std::shared_ptr<RecognitionEngine>> engines_;
};

}  // namespace palaver
