#include "worker/sherpa/SherpaRecognition.h"

#include <atomic>
#include <utility>

#include "platform/linux/models/SherpaModel.h"
#include "platform/linux/models/SpeechModels.h"
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

class SherpaRecognition::Engine : public std::enable_shared_from_this<Engine> {
 public:
  Engine(std::filesystem::path folder, std::string locale, std::vector<std::filesystem::path> libraryFolders)
      : locale_(std::move(locale)),
        thread_([folder = std::move(folder), locale = locale_, libraryFolders = std::move(libraryFolders)] {
          return loadSherpaModel(folder, locale, libraryFolders);
        }) {}

  const std::string& locale() const { return locale_; }
  ModelThread& thread() { return thread_; }

  std::unique_ptr<SpeechRecognizer> makeRecognizer() {
    return std::make_unique<Recognizer>(shared_from_this());
  }

 private:
  class Request final : public RecognitionRequest {
   public:
    Request(std::shared_ptr<Engine> engine, RecognitionOptions options) : engine_(std::move(engine)) {
      job_->options = std::move(options);
    }
    ~Request() override {
      if (isStarted_ && !isEnded_) engine_->thread().endAudio(job_);
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    void append(std::shared_ptr<const PCMBuffer> buffer) override {
      if (isEnded_ || !buffer) return;
      if (isStarted_) {
        engine_->thread().append(job_, std::move(buffer));
      } else {
        job_->audio.push_back(std::move(buffer));
      }
    }

    void endAudio() override {
      if (std::exchange(isEnded_, true)) return;
      if (isStarted_) {
        engine_->thread().endAudio(job_);
      } else {
        job_->audioEnded = true;
      }
    }

    std::shared_ptr<TranscriptionJob> start(ModelThread::ChannelID channel, ResultHandler handler) {
      isStarted_ = true;
      job_->handler = std::move(handler);
      engine_->thread().start(channel, job_);
      return job_;
    }

   private:
    const std::shared_ptr<Engine> engine_;
    const std::shared_ptr<TranscriptionJob> job_ = std::make_shared<TranscriptionJob>();
    bool isStarted_ = false;  // from then on the model's thread owns the job
    bool isEnded_ = false;
  };

  class Task final : public RecognitionTask {
   public:
    Task(std::shared_ptr<Engine> engine, std::shared_ptr<TranscriptionJob> job)
        : engine_(std::move(engine)), job_(std::move(job)) {}
    void cancel() override { engine_->thread().cancel(job_); }

   private:
    const std::shared_ptr<Engine> engine_;
    const std::shared_ptr<TranscriptionJob> job_;
  };

  class Recognizer final : public SpeechRecognizer {
   public:
    explicit Recognizer(std::shared_ptr<Engine> engine) : engine_(std::move(engine)) {}

    bool supportsOnDeviceRecognition() const override { return true; }

    std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions options) override {
      return std::make_shared<Request>(engine_, std::move(options));
    }

    std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                     ResultHandler handler) override {
      // The handler keeps the engine alive until the task has ended.
      auto keeping = [engine = engine_, handler = std::move(handler)](auto result, auto error) {
        handler(std::move(result), std::move(error));
      };
      auto job = static_cast<Request&>(*request).start(channel_, std::move(keeping));
      return std::make_unique<Task>(engine_, std::move(job));
    }

   private:
    const std::shared_ptr<Engine> engine_;
    const ModelThread::ChannelID channel_ = nextChannelID();
  };

  const std::string locale_;
  ModelThread thread_;
};

SherpaRecognition::SherpaRecognition(std::filesystem::path folder, std::string locale)
    : SherpaRecognition(std::move(folder), std::move(locale), usualSherpaLibraryFolders()) {}

SherpaRecognition::SherpaRecognition(std::filesystem::path folder, std::string locale,
                                     std::vector<std::filesystem::path> libraryFolders)
    : engine_(std::make_shared<Engine>(std::move(folder), std::move(locale), std::move(libraryFolders))) {}

SherpaRecognition::~SherpaRecognition() = default;

std::unique_ptr<SpeechRecognizer> SherpaRecognition::makeRecognizer(std::string_view localeIdentifier) {
  const auto wanted = canonicalLocale(localeIdentifier);
  if (!wanted || wanted != canonicalLocale(engine_->locale())) return nullptr;
  return engine_->makeRecognizer();
}

}  // namespace palaver
