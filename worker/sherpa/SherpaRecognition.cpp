#include "worker/sherpa/SherpaRecognition.h"

#include <atomic>
#include <utility>

#include "platform/linux/models/LocaleIdentifier.h"
#include "platform/linux/models/SherpaModel.h"
#include "worker/engine/JobRequest.h"
#include "worker/sherpa/ModelThread.h"
#include "worker/sherpa/SherpaError.h"
#include "worker/sherpa/loadSherpaModel.h"

namespace palaver {

namespace {

ModelThread::ChannelID nextChannelID() {
  static std::atomic<ModelThread::ChannelID> newest = 0;
  return ++newest;
}

}  // namespace

class SherpaRecognition::Engine {
 public:
  Engine(std::filesystem::path folder, std::string locale, std::vector<std::filesystem::path> libraryFolders)
      : locale_(std::move(locale)),
        thread_([folder = std::move(folder), locale = locale_, libraryFolders = std::move(libraryFolders)] {
          return loadSherpaModel(folder, locale, libraryFolders);
        }) {}

  const std::string& locale() const { return locale_; }
  ModelThread& thread() { return thread_; }

 private:
  const std::string locale_;
  ModelThread thread_;
};

class SherpaRecognition::Channel final : public JobChannel {
 public:
  explicit Channel(std::shared_ptr<Engine> engine) : engine_(std::move(engine)) {}

  void start(std::shared_ptr<RecognitionJob> job) override { engine_->thread().start(id_, std::move(job)); }
  EngineThread& thread() override { return engine_->thread().thread(); }

 private:
  const std::shared_ptr<Engine> engine_;
  const ModelThread::ChannelID id_ = nextChannelID();
};

class SherpaRecognition::Recognizer final : public SpeechRecognizer {
 public:
  explicit Recognizer(std::shared_ptr<Engine> engine)
      : engine_(std::move(engine)), channel_(std::make_shared<Channel>(engine_)) {}

  bool supportsOnDeviceRecognition() const override { return true; }

  std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions options) override {
    return makeJobRequest(channel_, std::move(options));
  }

  std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                   ResultHandler handler) override {
    // The handler keeps the engine alive until the task has ended.
    return startTask(*request, [engine = engine_, handler = std::move(handler)](auto result, auto error) {
      handler(std::move(result), std::move(error));
    });
  }

 private:
  const std::shared_ptr<Engine> engine_;
  const std::shared_ptr<Channel> channel_;
};

SherpaRecognition::SherpaRecognition(std::filesystem::path folder, std::string locale)
    : SherpaRecognition(std::move(folder), std::move(locale), usualSherpaLibraryFolders()) {}

SherpaRecognition::SherpaRecognition(std::filesystem::path folder, std::string locale,
                                     std::vector<std::filesystem::path> libraryFolders)
    : engine_(std::make_shared<Engine>(std::move(folder), std::move(locale), std::move(libraryFolders))) {}

SherpaRecognition::~SherpaRecognition() = default;

void SherpaRecognition::reportSteps(StepHandler handler) {
  engine_->thread().reportSteps(std::move(handler));
}

std::unique_ptr<SpeechRecognizer> SherpaRecognition::makeRecognizer(std::string_view localeIdentifier) {
  const auto wanted = canonicalLocale(localeIdentifier);
  if (!wanted || wanted != canonicalLocale(engine_->locale())) return nullptr;
  return std::make_unique<Recognizer>(engine_);
}

}  // namespace palaver
