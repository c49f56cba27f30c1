#include "worker/sherpa/ModelThread.h"

#include <algorithm>
#include <cstddef>
#include <deque>
#include <exception>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "worker/sherpa/SherpaError.h"

namespace palaver {

namespace {

std::span<const std::int16_t> samplesOf(const PCMBuffer& buffer) {
  const auto samples = engineSamples(buffer);
  if (!samples)
    throw sherpaError(sherpaUnsupportedAudio, "The speech engine takes mono 16-bit audio at 16 kHz only");
  return *samples;
}

PlatformError engineFailure(const char* text) {
  return sherpaError(sherpaEngineFailed, std::string("The speech engine failed: ") + text);
}

}  // namespace

class ModelThread::Channels final : public EngineThread::Work {
 public:
  explicit Channels(Loader load) : load_(std::move(load)) {}

  void begin() override { loadIfNeeded(); }  // a failure is reported to the first task

  bool isDue() const override {
    return std::ranges::any_of(channels_, [](const auto& entry) { return isDue(entry.second); });
  }

  void step() override {
    dropCancelled();
    takeAudio();
    const auto batch = nextBatch();
    work(batch);
    for (Channel* const channel : batch) {
      channel->servedAt = ++servings_;
      report(*channel);
    }
    std::erase_if(channels_, [](const auto& entry) { return entry.second.jobs.empty(); });
  }

  void start(ChannelID id, std::shared_ptr<RecognitionJob> job) {
    channels_[id].jobs.push_back(std::move(job));
  }

  void reportSteps(StepHandler handler) { reportStep_ = std::move(handler); }

 private:
  struct Channel {
    std::deque<std::shared_ptr<RecognitionJob>> jobs;  // the first one is being transcribed
    std::unique_ptr<Transcriber> transcriber;          // of the first job
    std::string reported;                              // newest partial text
    bool isEndTaken = false;                           // the transcriber knows that the audio has ended
    std::optional<PlatformError> error;                // ends the first job
    std::uint64_t servedAt = 0;
  };

  void loadIfNeeded() {
    if (model_) return;
    loadError_ = failureOf([this] { model_ = load_(); },
                           [](const char* text) {
                             return sherpaError(sherpaModelUnusable,
                                                std::string("The speech model could not be loaded: ") + text);
                           });
  }

  void dropCancelled() {
    for (auto& [id, channel] : channels_)
      while (!channel.jobs.empty() && channel.jobs.front()->isCancelled) endJob(channel);
  }

  // Ends the first job of a channel. Returns it, because its handler may still have to be called.
  static std::shared_ptr<RecognitionJob> endJob(Channel& channel) {
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
      channel.error = failureOf([this, &channel = channel] { takeAudio(channel); }, engineFailure);
    }
  }

  void takeAudio(Channel& channel) {
    RecognitionJob& job = *channel.jobs.front();
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
    const RecognitionJob& job = *channel.jobs.front();
    if (job.isCancelled || channel.error || !channel.transcriber) return true;
    if (job.audio.empty() ? job.audioEnded && !channel.isEndTaken : channel.transcriber->wantsAudio())
      return true;
    return channel.transcriber->hasWork() || channel.transcriber->isFinished();
  }

  // Returns the most urgent channel. When it has work, also those with work that may share its step: the next
  // ones in turn of the same urgency, so that a person who waits for a final waits for finals only.
  std::vector<Channel*> nextBatch() {
    std::vector<Channel*> due;
    for (auto& [id, channel] : channels_)
      if (isDue(channel) && !channel.jobs.front()->isCancelled) due.push_back(&channel);
    const auto rank = [](const Channel* channel) {
      return std::pair(!channel->error && !channel->isEndTaken, channel->servedAt);
    };
    std::ranges::sort(due, {}, rank);
    if (due.empty()) return due;
    const auto size = hasWork(*due.front()) ? model_->batchSize() : 1;
    std::vector<Channel*> batch{due.front()};
    for (auto channel = due.begin() + 1; channel != due.end() && batch.size() < size; ++channel)
      if (hasWork(**channel) && (*channel)->isEndTaken == batch.front()->isEndTaken)
        batch.push_back(*channel);
    return batch;
  }

  static bool hasWork(const Channel& channel) {
    return !channel.error && channel.transcriber && channel.transcriber->hasWork();
  }

  // Decodes one step of each channel that has work.
  void work(const std::vector<Channel*>& batch) {
    if (batch.empty() || !hasWork(*batch.front())) return;
    std::vector<Transcriber*> transcribers;
    std::int64_t samples = 0;
    for (const Channel* const channel : batch) {
      transcribers.push_back(channel->transcriber.get());
      samples += channel->transcriber->stepLength();
    }
    if (reportStep_) reportStep_(samples);
    const auto failures = model_->work(transcribers);
    for (std::size_t i = 0; i < batch.size(); ++i)
      if (failures[i])
        batch[i]->error = failureOf([&] { std::rethrow_exception(failures[i]); }, engineFailure);
  }

  // Reports what a channel's step has yielded.
  void report(Channel& channel) {
    if (channel.jobs.front()->isCancelled) return;
    if (channel.error) {
      auto error = std::exchange(channel.error, std::nullopt);
      answerLast(*endJob(channel), std::nullopt, std::move(error));
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
      answerLast(*job, std::nullopt, sherpaError(sherpaNoSpeech, "No speech detected"));
    } else {
      answerLast(*job, std::move(result), std::nullopt);
    }
  }

  const Loader load_;
  std::unique_ptr<LoadedModel> model_;  // destroyed after the transcribers
  std::optional<PlatformError> loadError_;
  bool isLoadErrorReported_ = false;
  std::map<ChannelID, Channel> channels_;
  std::uint64_t servings_ = 0;
  StepHandler reportStep_;
};

ModelThread::ModelThread(Loader load) : ModelThread(std::make_unique<Channels>(std::move(load))) {}

ModelThread::ModelThread(std::unique_ptr<Channels> channels)
    : channels_(*channels), thread_(std::move(channels)) {}

ModelThread::~ModelThread() = default;

void ModelThread::reportSteps(StepHandler handler) {
  thread_.post([&channels = channels_, handler = std::move(handler)]() mutable {
    channels.reportSteps(std::move(handler));
  });
}

void ModelThread::start(ChannelID channel, std::shared_ptr<RecognitionJob> job) {
  thread_.post([&channels = channels_, channel, job = std::move(job)]() mutable {
    channels.start(channel, std::move(job));
  });
}

}  // namespace palaver
