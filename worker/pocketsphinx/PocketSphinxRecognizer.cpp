#include "worker/pocketsphinx/PocketSphinxRecognizer.h"

#include <atomic>
#include <utility>

#include "worker/pocketsphinx/RecognitionEngine.h"

namespace palaver {

// Represents a channel on the main thread. Shared by the recognizer, its requests and its tasks.
class PocketSphinxRecognizer::Channel {
 public:
  Channel(SpeechModelFiles files, std::shared_ptr<RecognitionEngines> engines)
      : files_(std::move(files)), engines_(std::move(engines)) {}
  ~Channel() {
    if (engine_) engine_->closeChannel(id_);
  }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  const SpeechModelFiles& files() const { return files_; }

  // Returns the engine that serves the channel. Chosen by the first call and never changed.
  RecognitionEngine& engine() {
    if (!engine_) {
      engine_ = engines_->engineForNewChannel();
      engine_->openChannel(id_, files_);
    }
    return *engine_;
  }

  void start(std::shared_ptr<RecognitionJob> job) { engine().start(id_, std::move(job)); }

 private:
  static RecognitionEngine::ChannelID nextID() {
    static std::atomic<RecognitionEngine::ChannelID> newest = 0;
    return ++newest;
  }

  const RecognitionEngine::ChannelID id_ = nextID();
  const SpeechModelFiles files_;
  const std::shared_ptr<RecognitionEngines> engines_;
  std::shared_ptr<RecognitionEngine> engine_;
};

class PocketSphinxRecognizer::Request final : public RecognitionRequest {
 public:
  Request(std::shared_ptr<Channel> channel, RecognitionOptions options) : channel_(std::move(channel)) {
    job_->options = std::move(options);
  }
  ~Request() override {
    if (isStarted_ && !isEnded_) channel_->engine().endAudio(job_);
  }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  void append(std::shared_ptr<const PCMBuffer> buffer) override {
    if (isEnded_ || !buffer) return;
    if (isStarted_) {
      channel_->engine().append(job_, std::move(buffer));
    } else {
      job_->audio.push_back(std::move(buffer));
    }
  }

  void endAudio() override {
    if (std::exchange(isEnded_, true)) return;
    if (isStarted_) {
      channel_->engine().endAudio(job_);
    } else {
      job_->audioEnded = true;
    }
  }

  std::shared_ptr<RecognitionJob> start(ResultHandler handler) {
    isStarted_ = true;
    job_->handler = std::move(handler);
    channel_->start(job_);
    return job_;
  }

 private:
  const std::shared_ptr<Channel> channel_;
  const std::shared_ptr<RecognitionJob> job_ = std::make_shared<RecognitionJob>();
  bool isStarted_ = false;  // from then on the engine's thread owns the job
  bool isEnded_ = false;
};

class PocketSphinxRecognizer::Task final : public RecognitionTask {
 public:
  Task(std::shared_ptr<Channel> channel, std::shared_ptr<RecognitionJob> job)
      : channel_(std::move(channel)), job_(std::move(job)) {}

  void cancel() override { channel_->engine().cancel(job_); }

 private:
  const std::shared_ptr<Channel> channel_;
  const std::shared_ptr<RecognitionJob> job_;
};

PocketSphinxRecognizer::PocketSphinxRecognizer(SpeechModelFiles files,
                                               std::shared_ptr<RecognitionEngines> engines)
    : channel_(std::make_shared<Channel>(std::move(files), std::move(engines))) {}

bool PocketSphinxRecognizer::supportsOnDeviceRecognition() const {
  return channel_->files().areInstalled();
}

std::shared_ptr<RecognitionRequest> PocketSphinxRecognizer::makeRequest(RecognitionOptions options) {
  return std::make_shared<Request>(channel_, std::move(options));
}

std::unique_ptr<RecognitionTask> PocketSphinxRecognizer::recognitionTask(
    const std::shared_ptr<RecognitionRequest>& request, ResultHandler handler) {
  auto job = static_cast<Request&>(*request).start(std::move(handler));
  return std::make_unique<Task>(channel_, std::move(job));
}

}  // namespace palaver
