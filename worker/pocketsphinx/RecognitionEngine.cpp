#include "worker/pocketsphinx/RecognitionEngine.h"

#include <malloc.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "platform/UniqueFunction.h"
#include "worker/pocketsphinx/Decoder.h"
#include "worker/pocketsphinx/Transcription.h"

namespace palaver {

namespace {

// Audio of one step, frames.
constexpr std::uint32_t framesPerStep = modelSampleRate / 10;

bool hasAudio(const RecognitionJob& job) {
  return job.buffersDone < job.audio.size();
}

// Returns the next frames of the task's audio, at most framesPerStep and from one buffer. Valid until
// the next call.
std::span<const std::int16_t> nextFrames(RecognitionJob& job) {
  const PCMBuffer& buffer = *job.audio[job.buffersDone];
  const AudioFormat& format = buffer.format();
  const std::int16_t* const samples = buffer.int16ChannelData();
  if (!samples || format.sampleRate != modelSampleRate || format.channelCount != 1)
    throw recognizerError(RecognizerErrorCode::unsupportedAudio,
                          "The speech engine takes mono 16-bit audio at 16 kHz only");
  const std::uint32_t count = std::min(framesPerStep, buffer.frameLength() - job.framesDone);
  const std::span frames(samples + job.framesDone, count);
  job.framesDone += count;
  return frames;
}

void releaseDoneBuffers(RecognitionJob& job) {
  if (hasAudio(job) && job.framesDone == job.audio[job.buffersDone]->frameLength()) {
    job.audio[job.buffersDone++].reset();
    job.framesDone = 0;
  }
  if (!hasAudio(job)) {
    job.audio.clear();
    job.buffersDone = 0;
  }
}

void answer(const RecognitionJob& job, std::optional<RecognitionResult> result,
            std::optional<PlatformError> error) {
  if (job.isCancelled || !job.handler) return;
  try {
    job.handler(std::move(result), std::move(error));
  } catch (...) {
    // There is no caller to report to. The thread and the other channels continue.
  }
}

}  // namespace

class RecognitionEngine::Worker {
 public:
  void post(UniqueFunction<void()> message) {
    {
      const std::lock_guard guard(lock_);
      messages_.push_back(std::move(message));
    }
    posted_.notify_one();
  }

  void stop() {
    stopping_ = true;
    post([] {});
  }

  void run() {
    while (!stopping_) {
      receive();
      for (auto channel = channels_.begin(); channel != channels_.end() && !stopping_;)
        channel = step(channel->second) ? channels_.erase(channel) : std::next(channel);
      if (std::exchange(hasFreed_, false)) malloc_trim(0);  // otherwise the process would keep the memory
    }
    channels_.clear();
  }

  std::thread thread;

  // The functions below run on the engine's thread.

  void open(ChannelID id, const SpeechModelFiles& files) { channels_.try_emplace(id, files); }

  void close(ChannelID id) {
    if (const auto channel = channels_.find(id); channel != channels_.end()) channel->second.isClosed = true;
    hasWork_ = true;
  }

  void start(ChannelID id, std::shared_ptr<RecognitionJob> job) {
    if (const auto channel = channels_.find(id); channel != channels_.end())
      channel->second.jobs.push_back(std::move(job));
    hasWork_ = true;
  }

  void wake() { hasWork_ = true; }

 private:
  struct Channel {
    explicit Channel(SpeechModelFiles modelFiles) : files(std::move(modelFiles)) {}

    SpeechModelFiles files;
    std::unique_ptr<Decoder> decoder;
    std::unique_ptr<Transcription> transcription;  // of the first job
    std::string reportedText;                      // of the job's newest partial result
    std::deque<std::shared_ptr<RecognitionJob>> jobs;
    bool isClosed = false;
  };
  using Channels = std::map<ChannelID, Channel>;

  // Waits for messages unless there is work, then handles all that have arrived.
  void receive() {
    std::vector<UniqueFunction<void()>> received;
    {
      std::unique_lock guard(lock_);
      posted_.wait(guard, [this] { return hasWork_ || !messages_.empty(); });
      std::swap(received, messages_);
    }
    hasWork_ = false;
    for (auto& message : received) message();
  }

  // Runs one step of a channel's work. Returns whether the channel is finished and should be erased.
  bool step(Channel& channel) {
    dropCancelled(channel);
    if (channel.jobs.empty()) {
      if (channel.isClosed && channel.decoder) hasFreed_ = true;
      return channel.isClosed;
    }
    // Keeps the job alive: its handler may release any object.
    const std::shared_ptr<RecognitionJob> job = channel.jobs.front();
    std::optional<PlatformError> error;
    try {
      work(channel, *job);
    } catch (const PlatformError& failure) {
      error = failure;
    } catch (const std::exception& failure) {
      error = recognizerError(RecognizerErrorCode::engineFailed,
                              std::string("The speech engine failed: ") + failure.what());
    }
    if (error) {
      endJob(channel);
      channel.decoder.reset();  // its state is undefined after an error
      hasFreed_ = true;
      answer(*job, std::nullopt, std::move(error));
      job->handler = nullptr;
    }
    hasWork_ = hasWork_ || channel.isClosed || hasWork(channel);
    return false;
  }

  static bool hasWork(const Channel& channel) {
    if (channel.jobs.empty()) return false;
    const RecognitionJob& job = *channel.jobs.front();
    return hasAudio(job) || job.audioEnded || job.isCancelled;
  }

  void dropCancelled(Channel& channel) {
    while (!channel.jobs.empty() && channel.jobs.front()->isCancelled) {
      const std::shared_ptr<RecognitionJob> job = channel.jobs.front();
      endJob(channel);
      job->handler = nullptr;
    }
  }

  void endJob(Channel& channel) {
    channel.transcription.reset();
    channel.reportedText.clear();
    RecognitionJob& job = *channel.jobs.front();
    job.audio.clear();
    job.buffersDone = 0;
    channel.jobs.pop_front();
  }

  void work(Channel& channel, RecognitionJob& job) {
    if (!channel.transcription) {
      if (!channel.decoder) channel.decoder = std::make_unique<Decoder>(languageModel(channel.files));
      channel.decoder->setContextualStrings(job.options.contextualStrings);
      channel.transcription = std::make_unique<Transcription>(*channel.decoder);
    }
    if (hasAudio(job)) {
      channel.transcription->process(nextFrames(job));
      releaseDoneBuffers(job);
      if (job.options.shouldReportPartialResults) reportPartial(channel, job);
    } else if (job.audioEnded) {
      finish(channel);
    }
  }

  static void reportPartial(Channel& channel, const RecognitionJob& job) {
    std::string text = channel.transcription->text();
    if (text.empty() || text == channel.reportedText) return;
    channel.reportedText = text;
    answer(job, RecognitionResult{std::move(text), channel.transcription->segments(), false}, std::nullopt);
  }

  void finish(Channel& channel) {
    channel.transcription->finish();
    RecognitionResult result{channel.transcription->text(), channel.transcription->segments(), true};
    const std::shared_ptr<RecognitionJob> job = channel.jobs.front();
    endJob(channel);
    if (result.formattedString.empty()) {
      answer(*job, std::nullopt, recognizerError(RecognizerErrorCode::noSpeech, "No speech detected"));
    } else {
      answer(*job, std::move(result), std::nullopt);
    }
    job->handler = nullptr;
  }

  // Returns the language model. Decoders share ownership of it. Loads it again when no decoder holds it or
  // when other files have been installed.
  std::shared_ptr<const BaseLanguageModel> languageModel(const SpeechModelFiles& files) {
    auto& known = languageModels_[files.languageModel.string()];
    auto model = known.lock();
    if (!model || model->fingerprint() != files.fingerprint())
      known = model = std::make_shared<const BaseLanguageModel>(files);
    return model;
  }

  std::mutex lock_;
  std::condition_variable posted_;
  std::vector<UniqueFunction<void()>> messages_;
  std::atomic<bool> stopping_ = false;

  // The members below belong to the engine's thread.
  Channels channels_;
  std::map<std::string, std::weak_ptr<const BaseLanguageModel>> languageModels_;
  bool hasWork_ = false;
  bool hasFreed_ = false;
};

RecognitionEngine::RecognitionEngine() : worker_(std::make_shared<Worker>()) {
  worker_->thread = std::thread([worker = worker_] { worker->run(); });
}

RecognitionEngine::~RecognitionEngine() {
  worker_->stop();
  // A handler may own the last reference to a recognizer, and thereby to this engine.
  if (worker_->thread.get_id() == std::this_thread::get_id()) {
    worker_->thread.detach();
  } else {
    worker_->thread.join();
  }
}

void RecognitionEngine::openChannel(ChannelID channel, const SpeechModelFiles& files) {
  ++channelCount_;
  worker_->post([&worker = *worker_, channel, files] { worker.open(channel, files); });
}

void RecognitionEngine::closeChannel(ChannelID channel) {
  --channelCount_;
  worker_->post([&worker = *worker_, channel] { worker.close(channel); });
}

void RecognitionEngine::start(ChannelID channel, std::shared_ptr<RecognitionJob> job) {
  worker_->post([&worker = *worker_, channel, job = std::move(job)]() mutable {
    worker.start(channel, std::move(job));
  });
}

void RecognitionEngine::append(std::shared_ptr<RecognitionJob> job, std::shared_ptr<const PCMBuffer> buffer) {
  worker_->post([&worker = *worker_, job = std::move(job), buffer = std::move(buffer)]() mutable {
    if (job->isCancelled || job->audioEnded || !job->handler) return;
    job->audio.push_back(std::move(buffer));
    worker.wake();
  });
}

void RecognitionEngine::endAudio(std::shared_ptr<RecognitionJob> job) {
  worker_->post([&worker = *worker_, job = std::move(job)] {
    job->audioEnded = true;
    worker.wake();
  });
}

void RecognitionEngine::cancel(const std::shared_ptr<RecognitionJob>& job) {
  job->isCancelled = true;
  worker_->post([&worker = *worker_] { worker.wake(); });
}

std::shared_ptr<RecognitionEngine> RecognitionEngines::engineForNewChannel() {
  const auto idlest =
      std::ranges::min_element(engines_, {}, [](const auto& engine) { return engine->channelCount(); });
  const bool needsAnother = idlest == engines_.end() ||
                            ((*idlest)->channelCount() >= channelsPerEngine && engines_.size() < maxEngines);
  if (!needsAnother) return *idlest;
  return engines_.emplace_back(std::make_shared<RecognitionEngine>());
}

}  // namespace palaver
