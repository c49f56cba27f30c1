#include "worker/pocketsphinx/RecognitionEngine.h"

#include <malloc.h>

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "worker/pocketsphinx/Decoder.h"
#include "worker/pocketsphinx/Transcription.h"

namespace palaver {

namespace {

// Audio of one step, frames.
constexpr std::uint32_t framesPerStep = modelSampleRate / 10;

}  // namespace

class RecognitionEngine::Channels final : public EngineThread::Work {
 public:
  bool isDue() const override {
    return std::ranges::any_of(channels_, [](const auto& entry) { return entry.second.isDue(); });
  }

  // Serves the next channel in turn.
  void step() override {
    const auto isDue = [](const auto& entry) { return entry.second.isDue(); };
    auto channel = std::find_if(channels_.upper_bound(served_), channels_.end(), isDue);
    if (channel == channels_.end()) channel = std::ranges::find_if(channels_, isDue);
    served_ = channel->first;
    if (serve(channel->second)) channels_.erase(channel);
    if (std::exchange(hasFreed_, false)) malloc_trim(0);  // otherwise the process would keep the memory
  }

  void open(ChannelID id, const SpeechModelFiles& files) { channels_.try_emplace(id, files); }

  void close(ChannelID id) {
    if (const auto channel = channels_.find(id); channel != channels_.end()) channel->second.isClosed = true;
  }

  void start(ChannelID id, std::shared_ptr<RecognitionJob> job) {
    if (const auto channel = channels_.find(id); channel != channels_.end())
      channel->second.jobs.push_back(std::move(job));
  }

 private:
  struct Channel {
    explicit Channel(SpeechModelFiles modelFiles) : files(std::move(modelFiles)) {}

    bool isDue() const {
      if (jobs.empty()) return isClosed;
      const RecognitionJob& job = *jobs.front();
      return !job.audio.empty() || job.audioEnded || job.isCancelled;
    }

    SpeechModelFiles files;
    std::unique_ptr<Decoder> decoder;
    std::unique_ptr<Transcription> transcription;  // of the first job
    std::string reportedText;                      // of the job's newest partial result
    std::size_t buffersDone = 0;                   // of the job's audio
    std::uint32_t framesDone = 0;                  // of the first unfinished buffer
    std::deque<std::shared_ptr<RecognitionJob>> jobs;
    bool isClosed = false;
  };

  // Runs one step of a channel's work. Returns whether the channel is finished and should be erased.
  bool serve(Channel& channel) {
    while (!channel.jobs.empty() && channel.jobs.front()->isCancelled) endJob(channel)->handler = nullptr;
    if (channel.jobs.empty()) {
      if (channel.isClosed && channel.decoder) hasFreed_ = true;
      return channel.isClosed;
    }
    auto error = failureOf([this, &channel] { work(channel); },
                           [](const char* text) {
                             return recognizerError(RecognizerErrorCode::engineFailed,
                                                    std::string("The speech engine failed: ") + text);
                           });
    if (error) {
      const auto job = endJob(channel);
      channel.decoder.reset();  // its state is undefined after an error
      hasFreed_ = true;
      answerLast(*job, std::nullopt, std::move(error));
    }
    return false;
  }

  // Ends the first job of a channel. Returns it, because its handler may still have to be called, and may
  // release any object.
  static std::shared_ptr<RecognitionJob> endJob(Channel& channel) {
    auto job = std::move(channel.jobs.front());
    channel.jobs.pop_front();
    channel.transcription.reset();
    channel.reportedText.clear();
    channel.buffersDone = 0;
    channel.framesDone = 0;
    job->audio.clear();
    return job;
  }

  void work(Channel& channel) {
    const auto job = channel.jobs.front();
    if (!channel.transcription) {
      if (!channel.decoder) channel.decoder = std::make_unique<Decoder>(languageModel(channel.files));
      channel.decoder->setContextualStrings(job->options.contextualStrings);
      channel.transcription = std::make_unique<Transcription>(*channel.decoder);
    }
    if (!job->audio.empty()) {
      channel.transcription->process(nextFrames(channel, *job));
      releaseDoneBuffers(channel, *job);
      if (job->options.shouldReportPartialResults) reportPartial(channel, *job);
    } else if (job->audioEnded) {
      finish(channel);
    }
  }

  // Returns the next frames of the task's audio, at most framesPerStep and from one buffer. Valid until the
  // buffer is released.
  static std::span<const std::int16_t> nextFrames(Channel& channel, const RecognitionJob& job) {
    const auto samples = engineSamples(*job.audio[channel.buffersDone]);
    if (!samples)
      throw recognizerError(RecognizerErrorCode::unsupportedAudio,
                            "The speech engine takes mono 16-bit audio at 16 kHz only");
    const auto rest = samples->subspan(channel.framesDone);
    const auto frames = rest.first(std::min<std::size_t>(framesPerStep, rest.size()));
    channel.framesDone += static_cast<std::uint32_t>(frames.size());
    return frames;
  }

  static void releaseDoneBuffers(Channel& channel, RecognitionJob& job) {
    if (channel.framesDone == job.audio[channel.buffersDone]->frameLength()) {
      job.audio[channel.buffersDone++].reset();
      channel.framesDone = 0;
    }
    if (channel.buffersDone == job.audio.size()) {
      job.audio.clear();
      channel.buffersDone = 0;
    }
  }

  static void reportPartial(Channel& channel, const RecognitionJob& job) {
    std::string text = channel.transcription->text();
    if (text.empty() || text == channel.reportedText) return;
    channel.reportedText = text;
    answer(job, RecognitionResult{std::move(text), channel.transcription->segments(), false}, std::nullopt);
  }

  static void finish(Channel& channel) {
    channel.transcription->finish();
    RecognitionResult result{channel.transcription->text(), channel.transcription->segments(), true};
    const auto job = endJob(channel);
    if (result.formattedString.empty()) {
      answerLast(*job, std::nullopt, recognizerError(RecognizerErrorCode::noSpeech, "No speech detected"));
    } else {
      answerLast(*job, std::move(result), std::nullopt);
    }
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

  std::map<ChannelID, Channel> channels_;
  std::map<std::string, std::weak_ptr<const BaseLanguageModel>> languageModels_;
  ChannelID served_ = 0;
  bool hasFreed_ = false;
};

RecognitionEngine::RecognitionEngine() : RecognitionEngine(std::make_unique<Channels>()) {}

RecognitionEngine::RecognitionEngine(std::unique_ptr<Channels> channels)
    : channels_(*channels), thread_(std::move(channels)) {}

RecognitionEngine::~RecognitionEngine() = default;

void RecognitionEngine::openChannel(ChannelID channel, const SpeechModelFiles& files) {
  ++channelCount_;
  thread_.post([&channels = channels_, channel, files] { channels.open(channel, files); });
}

void RecognitionEngine::closeChannel(ChannelID channel) {
  --channelCount_;
  thread_.post([&channels = channels_, channel] { channels.close(channel); });
}

void RecognitionEngine::start(ChannelID channel, std::shared_ptr<RecognitionJob> job) {
  thread_.post([&channels = channels_, channel, job = std::move(job)]() mutable {
    channels.start(channel, std::move(job));
  });
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
