#include "simulator/RecognizedSpeechAnalysis.h"

#include <algorithm>
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace palaver {

namespace {

constexpr AudioFormat analyzerFormat{CommonFormat::int16, 16000, 1, true};
constexpr std::uint32_t windowLength = 160;  // frames, 10 ms per loudness measurement
constexpr double quietBelow = 0.008;         // root mean square, full scale 1
constexpr std::int64_t pauseLength = 14400;  // frames, 900 ms
constexpr std::int64_t maxQuiet = 160000;    // frames, 10 s: the longest segment without speech
constexpr std::int64_t maxSpeech = 480000;   // frames, 30 s: the longest segment without a pause
constexpr std::size_t maxTasks = 4;          // unanswered tasks; input blocks above this
constexpr long noSpeechCode = 1110;

bool isQuiet(const std::int16_t* samples, std::uint32_t frames) {
  double power = 0;
  for (std::uint32_t i = 0; i < frames; ++i) power += std::pow(samples[i] / 32768.0, 2);
  return std::sqrt(power / frames) < quietBelow;
}

}  // namespace

// Owns the worker thread and calls the recognition on it.
class RecognizedSpeechAnalysis::Service {
 public:
  explicit Service(SpeechRecognition& recognition)
      : recognition_(recognition), thread_(std::make_unique<asio::thread_pool>(1)) {}

  // Any thread. After stop(), jobs are destroyed immediately.
  template <typename Job>
  void post(Job job) {
    const std::lock_guard guard(lock_);
    if (thread_) asio::post(*thread_, std::move(job));
  }
  // Drops pending jobs.
  void stop() {
    const auto thread = [this] {
      const std::lock_guard guard(lock_);
      return std::move(thread_);
    }();
    thread->stop();
    thread->join();
  }
  SpeechRecognition& recognition() { return recognition_; }

 private:
  SpeechRecognition& recognition_;
  std::mutex lock_;
  std::unique_ptr<asio::thread_pool> thread_;
};

// Implements one analyzer with its transcriber and its input. Runs on the service's thread, except for the
// task count.
class RecognizedSpeechAnalysis::Analysis : public std::enable_shared_from_this<Analysis> {
 public:
  // Destroys the analysis on the service's thread, as its recognizer requires.
  static std::shared_ptr<Analysis> make(const std::shared_ptr<Service>& service, std::string locale) {
    return {new Analysis(service, std::move(locale)), [service](Analysis* analysis) {
              service->post([owner = std::unique_ptr<Analysis>(analysis)] {});
            }};
  }

  template <typename... Parameters, typename... Arguments>
  void post(void (Analysis::*function)(Parameters...), Arguments... arguments) {
    service_->post([self = shared_from_this(), function, ... values = std::move(arguments)]() mutable {
      (*self.*function)(std::move(values)...);
    });
  }

  // Any thread. Blocks while too many segments wait for the recognizer.
  void waitForRoom() {
    std::unique_lock lock(lock_);
    changed_.wait(lock, [this] { return openTasks_ <= maxTasks; });
  }

  void answerStatus(UniqueFunction<void(AssetStatus)> completion) {
    completion(isInstalled() ? AssetStatus::installed : AssetStatus::supported);
  }
  void answerInstallationRequest(UniqueFunction<void(InstallationRequest)> completion) {
    if (isInstalled()) return completion(nullptr);
    completion(PlatformError("SimulatedSpeechAnalysis", 1,
                             "The model of " + locale_ + " cannot be downloaded here"));
  }

  void setContextualStrings(std::vector<std::string> phrases) {
    options_.contextualStrings = std::move(phrases);
  }

  void prepare(AudioFormat format, FallibleCompletion completion) {
    if (format == analyzerFormat) return completion(std::nullopt);
    completion(PlatformError("SimulatedSpeechAnalysis", 2, "The audio format is not supported"));
  }

  void append(std::shared_ptr<const PCMBuffer> buffer) {
    if (inputHasEnded_ || resultsHaveEnded_) return;
    const auto frames = buffer->frameLength();
    if (!stretch_) begin();
    const auto stretch = stretch_;
    for (std::uint32_t at = 0; at < frames; at += windowLength) {
      const auto length = std::min(windowLength, frames - at);
      if (isQuiet(buffer->int16ChannelData() + at, length)) {
        stretch->quiet += length;
      } else {
        stretch->quiet = 0;
        stretch->heardVoice = true;
      }
    }
    stretch->length += frames;
    received_ += frames;
    stretch->request->append(std::move(buffer));
    const bool pauses = stretch->heardVoice && stretch->quiet >= pauseLength;
    const bool isEmpty = !stretch->heardVoice && stretch->length >= maxQuiet;
    if (pauses || isEmpty || stretch->length >= maxSpeech) close();
  }

  void endInput() { inputHasEnded_ = true; }

  void finish(FallibleCompletion completion) {
    inputHasEnded_ = true;
    close();
    finished_ = std::move(completion);
    endIfDone();
  }

  void cancel(UniqueFunction<void()> completion) {
    inputHasEnded_ = true;
    for (const auto& task : tasks_) task->task->cancel();
    close();
    tasks_.clear();
    setOpenTasks(0);
    cancelResults();
    completion();
  }

  void read(UniqueFunction<void(NextResult)> reader) {
    reader_ = std::move(reader);
    deliver();
  }

  void cancelResults() {
    resultsHaveEnded_ = true;
    results_.assign(1, ResultsCancelled{});
    deliver();
  }

 private:
  Analysis(std::shared_ptr<Service> service, std::string locale)
      : service_(std::move(service)), locale_(std::move(locale)) {}

  // Holds one task. Times in its results are relative to the segment's start.
  struct Stretch {
    std::int64_t startsAt = 0;    // frames
    std::int64_t length = 0;      // frames
    std::int64_t quiet = 0;       // trailing silence, frames
    std::optional<double> start;  // of its first word, s since the start of the audio
    bool heardVoice = false;
    std::shared_ptr<RecognitionRequest> request;
    std::unique_ptr<RecognitionTask> task;
  };

  SpeechRecognizer* recognizer() {
    if (!recognizer_) recognizer_ = service_->recognition().makeRecognizer(locale_);
    return recognizer_.get();
  }
  bool isInstalled() { return recognizer() && recognizer()->supportsOnDeviceRecognition(); }

  void begin() {
    stretch_ = std::make_shared<Stretch>();
    stretch_->startsAt = received_;
    stretch_->request = recognizer()->makeRequest(options_);
    tasks_.push_back(stretch_);
    setOpenTasks(tasks_.size());
    // The recognizer calls the handler on one of its threads.
    stretch_->task = recognizer()->recognitionTask(
        stretch_->request,
        [weak = weak_from_this(), stretch = std::weak_ptr(stretch_)](auto result, auto error) {
          const auto self = weak.lock();
          const auto which = stretch.lock();
          if (self && which) self->post(&Analysis::handle, which, std::move(result), std::move(error));
        });
  }

  void close() {
    if (stretch_) std::exchange(stretch_, nullptr)->request->endAudio();
  }

  void handle(const std::shared_ptr<Stretch>& stretch, std::optional<RecognitionResult> result,
              std::optional<PlatformError> error) {
    const auto task = std::find(tasks_.begin(), tasks_.end(), stretch);
    if (task == tasks_.end()) return;
    if (result && !result->formattedString.empty() && !result->segments.empty()) emit(*stretch, *result);
    if (!error && !(result && result->isFinal)) return;
    tasks_.erase(task);
    setOpenTasks(tasks_.size());
    if (stretch_ == stretch) stretch_ = nullptr;  // ended before its audio did
    if (error && error->code() != noSpeechCode) end(*error);
    endIfDone();
  }

  void emit(Stretch& stretch, const RecognitionResult& result) {
    const double offset = static_cast<double>(stretch.startsAt) / analyzerFormat.sampleRate;
    if (!stretch.start) stretch.start = offset + result.segments.front().timestamp;
    const auto& last = result.segments.back();
    push(TranscriptionResult{result.formattedString, *stretch.start, offset + last.timestamp + last.duration,
                             result.isFinal});
  }

  void endIfDone() {
    if (!finished_ || !tasks_.empty()) return;
    const auto failure = failure_;
    end(EndOfResults{});
    std::exchange(finished_, nullptr)(failure);
  }

  void end(NextResult last) {
    if (const auto* const error = std::get_if<PlatformError>(&last)) failure_ = *error;
    push(std::move(last));
  }

  void push(NextResult result) {
    if (resultsHaveEnded_) return;
    resultsHaveEnded_ = !std::holds_alternative<TranscriptionResult>(result);
    results_.push_back(std::move(result));
    deliver();
  }

  void deliver() {
    if (!reader_ || results_.empty()) return;
    auto result = std::move(results_.front());
    results_.pop_front();
    std::exchange(reader_, nullptr)(std::move(result));
  }

  void setOpenTasks(std::size_t count) {
    {
      const std::lock_guard guard(lock_);
      openTasks_ = count;
    }
    changed_.notify_all();
  }

  const std::shared_ptr<Service> service_;
  const std::string locale_;
  RecognitionOptions options_{true, true, TaskHint::dictation, {}};
  std::unique_ptr<SpeechRecognizer> recognizer_;
  std::shared_ptr<Stretch> stretch_;            // the segment that receives audio
  std::deque<std::shared_ptr<Stretch>> tasks_;  // unanswered, oldest first
  std::int64_t received_ = 0;                   // frames
  bool inputHasEnded_ = false;
  bool resultsHaveEnded_ = false;
  std::optional<PlatformError> failure_;
  FallibleCompletion finished_;
  std::deque<NextResult> results_;  // emitted, not yet read
  UniqueFunction<void(NextResult)> reader_;

  std::mutex lock_;
  std::condition_variable changed_;
  std::size_t openTasks_ = 0;
};

class RecognizedSpeechAnalysis::Transcriber final : public SpeechTranscriber {
 public:
  explicit Transcriber(std::shared_ptr<Analysis> analysis) : analysis_(std::move(analysis)) {}

  void nextResult(UniqueFunction<void(NextResult)> completion) override {
    analysis_->post(&Analysis::read, std::move(completion));
  }
  void cancelResults() override { analysis_->post(&Analysis::cancelResults); }
  Analysis& analysis() const { return *analysis_; }

 private:
  const std::shared_ptr<Analysis> analysis_;
};

class RecognizedSpeechAnalysis::Analyzer final : public SpeechAnalyzer {
 public:
  explicit Analyzer(std::shared_ptr<Analysis> analysis) : analysis_(std::move(analysis)) {}

  void prepareToAnalyze(const AudioFormat& format, FallibleCompletion completion) override {
    analysis_->post(&Analysis::prepare, format, std::move(completion));
  }
  void finalizeAndFinishThroughEndOfInput(FallibleCompletion completion) override {
    analysis_->post(&Analysis::finish, std::move(completion));
  }
  void cancelAndFinishNow(UniqueFunction<void()> completion) override {
    analysis_->post(&Analysis::cancel, std::move(completion));
  }

 private:
  const std::shared_ptr<Analysis> analysis_;
};

class RecognizedSpeechAnalysis::Input final : public AnalyzerInput {
 public:
  explicit Input(std::shared_ptr<Analysis> analysis) : analysis_(std::move(analysis)) {}

  void yield(std::shared_ptr<const PCMBuffer> buffer) override {
    analysis_->waitForRoom();
    analysis_->post(&Analysis::append, std::move(buffer));
  }
  void finish() override { analysis_->post(&Analysis::endInput); }

 private:
  const std::shared_ptr<Analysis> analysis_;
};

RecognizedSpeechAnalysis::RecognizedSpeechAnalysis(SpeechRecognition& recognition,
                                                   std::map<std::string, std::string> servedBy)
    : service_(std::make_shared<Service>(recognition)), servedBy_(std::move(servedBy)) {}

RecognizedSpeechAnalysis::~RecognizedSpeechAnalysis() {
  service_->stop();
}

void RecognizedSpeechAnalysis::supportedLocale(std::string_view equivalentTo,
                                               UniqueFunction<void(std::optional<std::string>)> completion) {
  const auto served = servedBy_.find(std::string(equivalentTo));
  service_->post([service = service_.get(), completion = std::move(completion),
                  locale = served == servedBy_.end() ? std::string(equivalentTo) : served->second] {
    completion(service->recognition().makeRecognizer(locale) ? std::optional(locale) : std::nullopt);
  });
}

std::shared_ptr<SpeechTranscriber> RecognizedSpeechAnalysis::makeTranscriber(std::string_view supportedLocale,
                                                                             TranscriberPreset) {
  return std::make_shared<Transcriber>(Analysis::make(service_, std::string(supportedLocale)));
}

void RecognizedSpeechAnalysis::bestAvailableAudioFormat(
    const std::shared_ptr<SpeechTranscriber>&, UniqueFunction<void(std::optional<AudioFormat>)> completion) {
  completion(analyzerFormat);
}

SpeechAnalysis::AnalyzerWithInput RecognizedSpeechAnalysis::makeAnalyzer(
    const std::shared_ptr<SpeechTranscriber>& transcriber,
    const std::vector<std::string>& contextualStrings) {
  const auto analysis = static_cast<const Transcriber&>(*transcriber).analysis().shared_from_this();
  analysis->post(&Analysis::setContextualStrings, contextualStrings);
  return {std::make_shared<Analyzer>(analysis), std::make_shared<Input>(analysis)};
}

void RecognizedSpeechAnalysis::status(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                      UniqueFunction<void(AssetStatus)> completion) {
  static_cast<const Transcriber&>(*transcriber)
      .analysis()
      .post(&Analysis::answerStatus, std::move(completion));
}

void RecognizedSpeechAnalysis::assetInstallationRequest(
    const std::shared_ptr<SpeechTranscriber>& transcriber,
    UniqueFunction<void(InstallationRequest)> completion) {
  static_cast<const Transcriber&>(*transcriber)
      .analysis()
      .post(&Analysis::answerInstallationRequest, std::move(completion));
}

}  // namespace palaver
