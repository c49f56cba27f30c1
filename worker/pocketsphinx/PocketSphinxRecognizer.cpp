#include "worker/pocketsphinx/PocketSphinxRecognizer.h"

#include <atomic>
#include <utility>

#include "worker/engine/JobRequest.h"
#include "worker/pocketsphinx/RecognitionEngine.h"

namespace palaver {

// Represents a channel on the main thread. Shared by the recognizer, its requests and its tasks.
class PocketSphinxRecognizer::Channel final : public JobChannel {
 public:
  Channel(SpeechModelFiles files, std::shared_ptr<RecognitionEngines> engines)
      : files_(std::move(files)), engines_(std::move(engines)) {}
  ~Channel() override {
    if (engine_) engine_->closeChannel(id_);
  }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  const SpeechModelFiles& files() const { return files_; }

  void start(std::shared_ptr<RecognitionJob> job) override { engine().start(id_, std::move(job)); }
  EngineThread& thread() override { return engine().thread(); }

 private:
  // Returns the engine that serves the channel. Chosen by the first call and never changed.
  RecognitionEngine& engine() {
    if (!engine_) {
      engine_ = engines_->engineForNewChannel();
      engine_->openChannel(id_, files_);
    }
    return *engine_;
  }

  static RecognitionEngine::ChannelID nextID() {
    static std::atomic<RecognitionEngine::ChannelID> newest = 0;
    return ++newest;
  }

  const RecognitionEngine::ChannelID id_ = nextID();
  const SpeechModelFiles files_;
  const std::shared_ptr<RecognitionEngines> engines_;
  std::shared_ptr<RecognitionEngine> engine_;
};

PocketSphinxRecognizer::PocketSphinxRecognizer(SpeechModelFiles files,
                                               std::shared_ptr<RecognitionEngines> engines)
    : channel_(std::make_shared<Channel>(std::move(files), std::move(engines))) {}

bool PocketSphinxRecognizer::supportsOnDeviceRecognition() const {
  return channel_->files().areInstalled();
}

std::shared_ptr<RecognitionRequest> PocketSphinxRecognizer::makeRequest(RecognitionOptions options) {
  return makeJobRequest(channel_, std::move(options));
}

std::unique_ptr<RecognitionTask> PocketSphinxRecognizer::recognitionTask(
    const std::shared_ptr<RecognitionRequest>& request, ResultHandler handler) {
  return startTask(*request, std::move(handler));
}

}  // namespace palaver
