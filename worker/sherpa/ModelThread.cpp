#include "worker/sherpa/ModelThread.h"

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
#include "worker/sherpa/SherpaError.h"

namespace palaver {

namespace {

void answer(const TranscriptionJob& job, std::optional<RecognitionResult> result,
            std::optional<PlatformError> error) {
  if (job.isCancelled || !job.handler) return;
  try {
    job.handler(std::move(result), std::move(error));
  } catch (...) {
    // There is no caller to report to. The other channels continue.
  }
}

std::span<const std::int16_t> samplesOf(const PCMBuffer& buffer) {
  const auto& format = buffer.format();
  const std::int16_t* const samples = buffer.int16ChannelData();
  if (!samples || format.sampleRate != speechSampleRate || format.channelCount != 1)
    throw sherpaError(sherpaUnsupportedAudio, "The speech engine takes mono 16-bit audio at 16 kHz only");
  return {samples, buffer.frameLength()};
}

}  // namespace

class ModelThread::Worker {
 public:
  explicit Worker(Loader load) : load_(std::move(load)) {}

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
    loadIfNeeded();  // a failure is reported to the first task
    while (!stopping_) {
      receive();
      if (stopping_) break;
      dropCancelled();
      takeAudio();
      if (const auto channel = mostUrgent(); channel != channels_.end()) {
        step(channel->second);
        channel->second.servedAt = ++servings_;
      }
      std::erase_if(channels_, [](const auto& entry) { return entry.second.jobs.empty(); });
    }
    channels_.clear();
    model_.reset();
  }

  std::thread thread;

  // The functions below run on the model's thread.

  void start(ChannelID id, std::shared_ptr<TranscriptionJob> job) {
    channels_[id].jobs.push_back(std::move(job));
  }

 private:
  struct Channel {
    std::deque<std::shared_ptr<TranscriptionJob>> jobs;  // the first one is being transcribed
    std::unique_ptr<Transcriber> transcriber;            // of the first job
    std::string reported;                                // newest partial text
    bool isEndTaken = false;                             // the transcriber knows that the audio has ended
    std::optional<PlatformError> error;                  // ends the first job
    std::uint64_t servedAt = 0;
  };
  using Channels = std::map<ChannelID, Channel>;

  // Waits for messages unless there is work, then handles all that have arrived.
  void receive() {
    std::vector<UniqueFunction<void()>> received;
    {
      std::unique_lock guard(lock_);
      posted_.wait(guard, [this] { return !messages_.empty() || mostUrgent() != channels_.end(); });
      std::swap(received, messages_);
    }
    for (auto& message : received) message();
  }

  void loadIfNeeded() {
    if (model_) return;
    loadError_.reset();
    try {
      model_ = load_();
    } catch (const PlatformError& error) {
      loadError_ = error;
    } catch (const std::exception& error) {
      loadError_ = sherpaError(sherpaModelUnusable,
                               std::string("The speech model could not be loaded: ") + error.what());
    }
  }

  void dropCancelled() {
    for (auto& [id, channel] : channels_)
      while (!channel.jobs.empty() && channel.jobs.front()->isCancelled) endJob(channel);
  }

  // Ends the first job of a channel. Returns it, because its handler may still have to be called.
  static std::shared_ptr<TranscriptionJob> endJob(Channel& channel) {
    auto job = std::move(channel.jobs.front());
    channel.jobs.pop_front();
    channel.transcriber.reset();
    channel.reported.clear();
    channel.isEndTaken = false;
    channel.error.reset();
    job->audio.clear();
    if (job->isCancelled) job->handler = nullptr;
    return job;
  }

  // Gives each channel's transcriber the audio that has arrived.
  void takeAudio() {
    for (auto& [id, channel] : channels_) {
      if (channel.jobs.empty() || channel.error) continue;
      try {
        takeAudio(channel);
      } catch (const PlatformError& error) {
        channel.error = error;
      } catch (const std::exception& error) {
        channel.error =
            sherpaError(sherpaEngineFailed, std::string("The speech engine failed: ") + error.what());
      }
    }
  }

  void takeAudio(Channel& channel) {
    TranscriptionJob& job = *channel.jobs.front();
    if (!channel.transcriber) {
      if (loadError_ && std::exchange(isLoadErrorReported_, true)) loadIfNeeded();
      if (loadError_) throw PlatformError(*loadError_);
      channel.transcriber = model_->transcribe(job.options.contextualStrings);
    }
    std::size_t taken = 0;
    for (; taken < job.audio.size() && channel.transcriber->wantsAudio(); ++taken)
      channel.transcriber->append(samplesOf(*job.audio[taken]));
    job.audio.erase(job.audio.begin(), job.audio.begin() + static_cast<std::ptrdiff_t>(taken));
    if (job.audio.empty() && job.audioEnded && !std::exchange(channel.isEndTaken, true))
      channel.transcriber->endAudio();
  }

  static bool isDue(const Channel& channel) {
    if (channel.jobs.empty()) return false;
    const TranscriptionJob& job = *channel.jobs.front();
    if (job.isCancelled || channel.error || !channel.transcriber) return true;
    if (job.audio.empty() ? job.audioEnded && !channel.isEndTaken : channel.transcriber->wantsAudio())
      return true;
    return channel.transcriber->hasWork() || channel.transcriber->isFinished();
  }

  Channels::iterator mostUrgent() {
    auto best = channels_.end();
    const auto rank = [](const Channel& channel) {
      return std::pair(!channel.error && !channel.isEndTaken, channel.servedAt);
    };
    for (auto channel = channels_.begin(); channel != channels_.end(); ++channel)
      if (isDue(channel->second) && (best == channels_.end() || rank(channel->second) < rank(best->second)))
        best = channel;
    return best;
  }

  void step(Channel& channel) {
    if (channel.jobs.empty() || channel.jobs.front()->isCancelled) return;
    if (!channel.error) {
      try {
        if (channel.transcriber->hasWork()) channel.transcriber->work();
      } catch (const PlatformError& error) {
        channel.error = error;
      } catch (const std::exception& error) {
        channel.error =
            sherpaError(sherpaEngineFailed, std::string("The speech engine failed: ") + error.what());
      }
    }
    if (channel.error) {
      auto error = std::exchange(channel.error, std::nullopt);
      const auto job = endJob(channel);
      answer(*job, std::nullopt, std::move(error));
      job->handler = nullptr;
      return;
    }
    reportPartial(channel);
    if (channel.transcriber->isFinished()) finish(channel);
  }

  // The newest text is reported as a partial result even when the final follows at once, so that a host sees
  // the words of a short utterance in the same two steps as those of a long one.
  static void reportPartial(Channel& channel) {
    const auto job = channel.jobs.front();
    if (!job->options.shouldReportPartialResults) return;
    auto result = makeResult(channel.transcriber->words(), channel.transcriber->length(), false);
    if (result.formattedString.empty() || result.formattedString == channel.reported) return;
    channel.reported = result.formattedString;
    answer(*job, std::move(result), std::nullopt);
  }

  static void finish(Channel& channel) {
    auto result = makeResult(channel.transcriber->words(), channel.transcriber->length(), true);
    const auto job = endJob(channel);
    if (result.formattedString.empty()) {
      answer(*job, std::nullopt, sherpaError(sherpaNoSpeech, "No speech detected"));
    } else {
      answer(*job, std::move(result), std::nullopt);
    }
    job->handler = nullptr;
  }

  const Loader load_;
  std::mutex lock_;
  std::condition_variable posted_;
  std::vector<UniqueFunction<void()>> messages_;
  std::atomic<bool> stopping_ = false;

  // The members below belong to the model's thread.
  std::unique_ptr<LoadedModel> model_;  // destroyed after the transcribers
  std::optional<PlatformError> loadError_;
  bool isLoadErrorReported_ = false;
  Channels channels_;
  std::uint64_t servings_ = 0;
};

ModelThread::ModelThread(Loader load) : worker_(std::make_shared<Worker>(std::move(load))) {
  worker_->thread = std::thread([worker = worker_] { worker->run(); });
}

ModelThread::~ModelThread() {
  worker_->stop();
  // A handler may own the last reference to a recognizer, and thereby to this thread.
  if (worker_->thread.get_id() == std::this_thread::get_id()) {
    worker_->thread.detach();
  } else {
    worker_->thread.join();
  }
}

void ModelThread::start(ChannelID channel, std::shared_ptr<TranscriptionJob> job) {
  worker_->post([&worker = *worker_, channel, job = std::move(job)]() mutable {
    worker.start(channel, std::move(job));
  });
}

void ModelThread::append(std::shared_ptr<TranscriptionJob> job, std::shared_ptr<const PCMBuffer> buffer) {
  worker_->post([job = std::move(job), buffer = std::move(buffer)]() mutable {
    if (!job->isCancelled && !job->audioEnded && job->handler) job->audio.push_back(std::move(buffer));
  });
}

void ModelThread::endAudio(std::shared_ptr<TranscriptionJob> job) {
  worker_->post([job = std::move(job)] { job->audioEnded = true; });
}

void ModelThread::cancel(const std::shared_ptr<TranscriptionJob>& job) {
  job->isCancelled = true;
  worker_->post([] {});
}

}  // namespace palaver
