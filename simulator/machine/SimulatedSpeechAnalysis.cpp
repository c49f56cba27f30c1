#include "simulator/machine/SimulatedSpeechAnalysis.h"

#include <deque>
#include <mutex>
#include <utility>

namespace palaver {

namespace {

constexpr double millisecondsPerSecond = 1000;

}  // namespace

// Represents one transcriber, its analyzer and its input. Guarded by the service's lock.
class SimulatedSpeechAnalysis::Analysis {
 public:
  RecordedAnalysis record;
  std::deque<NextResult> results;  // emitted but not read
  UniqueFunction<void(NextResult)> reader;
  bool resultsHaveEnded = false;  // nothing more is emitted
  std::optional<SimulatedAnalysisUtterance> utterance;
  std::size_t nextPartial = 0;
  double audio = 0;  // audio received, ms
  std::string newestText;
};

class SimulatedSpeechAnalysis::Service : public std::enable_shared_from_this<Service> {
 public:
  using Pointer = std::shared_ptr<Analysis>;

  Service(Timeline& timeline, AnalysisState state) : timeline_(timeline), state_(std::move(state)) {}

  template <typename Operation>
  auto locked(Operation operation) {
    const std::lock_guard guard(lock_);
    return operation();
  }
  AnalysisState& state() { return state_; }
  double now() const { return timeline_.now(); }

  // Calls the completion with the result of `makeAnswer` after the operation's duration. If the operation
  // never completes, keeps the completion forever. Without a stream, completions are not ordered.
  template <typename Completion, typename MakeAnswer>
  void answerLater(const SimulatedOperation& operation, const void* stream, Completion completion,
                   MakeAnswer makeAnswer) {
    if (operation.answersInsideCall) return completion(makeAnswer());
    if (!operation.takes)
      return keep([completion = std::move(completion)] { static_cast<void>(completion); });
    const auto ownStream = std::make_shared<char>();
    timeline_.schedule(
        *operation.takes, Timeline::Context::background, stream ? stream : ownStream.get(),
        [completion = std::move(completion), makeAnswer, ownStream] { completion(makeAnswer()); });
  }

  // The functions below require the lock, except abandon() and keep(), which take it.

  void append(Analysis& analysis, const PCMBuffer& buffer) {
    if (timeline_.hasEnded()) return;
    if (analysis.record.inputFinishedAt) {
      ++analysis.record.droppedBuffers;
      return;
    }
    const auto* const samples = buffer.int16ChannelData();
    analysis.record.buffers.push_back({buffer.format(), buffer.frameLength(),
                                       samples && buffer.frameLength() > 0 ? samples[0] : std::int16_t{0}});
    analysis.audio += buffer.frameLength() / buffer.format().sampleRate * millisecondsPerSecond;
    if (!analysis.utterance) return;
    const auto& utterance = *analysis.utterance;
    for (auto& next = analysis.nextPartial;
         next < utterance.partials.size() && analysis.audio >= utterance.partials[next].afterAudio; ++next) {
      analysis.newestText = utterance.partials[next].text;
      emit(analysis, TranscriptionResult{analysis.newestText, utterance.start, utterance.end, false});
    }
    if (utterance.finalAfter && analysis.audio >= *utterance.finalAfter) emitFinal(analysis);
  }

  void emitFinal(Analysis& analysis) {
    if (!analysis.utterance) return;
    const auto utterance = *std::exchange(analysis.utterance, std::nullopt);
    const auto& text = utterance.finalText.empty() ? analysis.newestText : utterance.finalText;
    if (!text.empty()) emit(analysis, TranscriptionResult{text, utterance.start, utterance.end, true});
  }

  void emit(Analysis& analysis, NextResult result) {
    if (timeline_.hasEnded() || analysis.resultsHaveEnded) return;
    if (!std::holds_alternative<TranscriptionResult>(result)) analysis.resultsHaveEnded = true;
    analysis.results.push_back(std::move(result));
    deliver(analysis);
  }

  // Drops unread results and ends the results.
  void cancelResults(Analysis& analysis) {
    if (timeline_.hasEnded()) return;
    analysis.resultsHaveEnded = true;
    analysis.results.assign(1, ResultsCancelled{});
    deliver(analysis);
  }

  void read(Analysis& analysis, UniqueFunction<void(NextResult)> reader) {
    analysis.reader = std::move(reader);
    deliver(analysis);
  }

  Pointer add(Pointer analysis) {
    if (!state_.utterances.empty())
      analysis->utterance = state_.utterances[analyses_.size() % state_.utterances.size()];
    analyses_.push_back(analysis);
    return analysis;
  }

  Pointer analysis(std::size_t number) const {
    if (analyses_.empty() || number > analyses_.size()) return nullptr;
    return analyses_[(number == 0 ? analyses_.size() : number) - 1];
  }

  // Destroys completions that are never called.
  void abandon() {
    std::vector<UniqueFunction<void()>> unanswered;
    std::vector<UniqueFunction<void(NextResult)>> readers;
    {
      const std::lock_guard guard(lock_);
      unanswered.swap(unanswered_);
      for (const auto& analysis : analyses_) readers.push_back(std::exchange(analysis->reader, nullptr));
    }
  }

  const std::vector<Pointer>& analyses() const { return analyses_; }
  Timeline& timeline() { return timeline_; }

 private:
  void keep(UniqueFunction<void()> completion) {
    const std::lock_guard guard(lock_);
    unanswered_.push_back(std::move(completion));
  }

  // Passes the oldest result to the waiting reader. Schedules the call on the timeline instead
  // of calling here.
  void deliver(Analysis& analysis) {
    if (!analysis.reader || analysis.results.empty()) return;
    auto result = std::move(analysis.results.front());
    analysis.results.pop_front();
    timeline_.schedule(
        0, Timeline::Context::background, &analysis,
        [reader = std::exchange(analysis.reader, nullptr), result = std::move(result)] { reader(result); });
  }

  Timeline& timeline_;
  AnalysisState state_;
  std::vector<Pointer> analyses_;
  std::vector<UniqueFunction<void()>> unanswered_;  // completions that are never called
  std::mutex lock_;
};

class SimulatedSpeechAnalysis::Transcriber final : public SpeechTranscriber {
 public:
  Transcriber(std::shared_ptr<Service> service, std::string locale) : service_(std::move(service)) {
    analysis_->record.locale = std::move(locale);
  }
  void nextResult(UniqueFunction<void(NextResult)> completion) override {
    service_->locked([&] { service_->read(*analysis_, std::move(completion)); });
  }
  void cancelResults() override {
    service_->locked([this] { service_->cancelResults(*analysis_); });
  }
  const std::shared_ptr<Analysis>& analysis() const { return analysis_; }

 private:
  std::shared_ptr<Service> service_;
  std::shared_ptr<Analysis> analysis_ = std::make_shared<Analysis>();
};

class SimulatedSpeechAnalysis::Input final : public AnalyzerInput {
 public:
  Input(std::shared_ptr<Service> service, std::shared_ptr<Analysis> analysis)
      : service_(std::move(service)), analysis_(std::move(analysis)) {}

  void yield(std::shared_ptr<const PCMBuffer> buffer) override {
    service_->locked([&] { service_->append(*analysis_, *buffer); });
  }
  void finish() override {
    service_->locked([this] {
      auto& finishedAt = analysis_->record.inputFinishedAt;
      if (!finishedAt) finishedAt = service_->now();
    });
  }

 private:
  std::shared_ptr<Service> service_;
  std::shared_ptr<Analysis> analysis_;
};

class SimulatedSpeechAnalysis::Analyzer final : public SpeechAnalyzer {
 public:
  Analyzer(std::shared_ptr<Service> service, std::shared_ptr<Analysis> analysis)
      : service_(std::move(service)), analysis_(std::move(analysis)) {}

  void prepareToAnalyze(const AudioFormat& format, FallibleCompletion completion) override {
    const auto operation = service_->locked([&] {
      analysis_->record.preparedFor = format;
      return service_->state().prepare;
    });
    service_->answerLater(operation, analysis_.get(), std::move(completion),
                          [error = operation.error] { return error; });
  }

  void finalizeAndFinishThroughEndOfInput(FallibleCompletion completion) override {
    const auto operation = service_->locked([this] {
      analysis_->record.finalizedAt = service_->now();
      return service_->state().finalize;
    });
    service_->answerLater(operation, analysis_.get(), std::move(completion),
                          [service = service_, analysis = analysis_, error = operation.error] {
                            service->locked([&] {
                              service->emitFinal(*analysis);
                              service->emit(*analysis,
                                            error ? NextResult(*error) : NextResult(EndOfResults{}));
                            });
                            return error;
                          });
  }

  void cancelAndFinishNow(UniqueFunction<void()> completion) override {
    const auto operation = service_->locked([this] {
      analysis_->record.cancelledAt = service_->now();
      return service_->state().cancel;
    });
    service_->answerLater(
        operation, analysis_.get(), [completion = std::move(completion)](bool) { completion(); },
        [service = service_, analysis = analysis_] {
          service->locked([&] { service->cancelResults(*analysis); });
          return true;
        });
  }

 private:
  std::shared_ptr<Service> service_;
  std::shared_ptr<Analysis> analysis_;
};

class SimulatedSpeechAnalysis::Installation final : public AssetInstallationRequest {
 public:
  explicit Installation(std::shared_ptr<Service> service) : service_(std::move(service)) {}

  void downloadAndInstall(FallibleCompletion completion) override {
    const auto operation = service_->locked([this] { return service_->state().download; });
    service_->answerLater(
        operation, this, std::move(completion), [service = service_, error = operation.error] {
          if (!error) service->locked([&] { service->state().model = service->state().modelAfterDownload; });
          return error;
        });
  }

 private:
  std::shared_ptr<Service> service_;
};

SimulatedSpeechAnalysis::SimulatedSpeechAnalysis(Timeline& timeline, AnalysisState state)
    : service_(std::make_shared<Service>(timeline, std::move(state))) {}

SimulatedSpeechAnalysis::~SimulatedSpeechAnalysis() {
  abandon();
}

void SimulatedSpeechAnalysis::abandon() {
  service_->abandon();
}

bool SimulatedSpeechAnalysis::isTranscriberAvailable() const {
  return state().isAvailable;
}

void SimulatedSpeechAnalysis::supportedLocale(std::string_view equivalentTo,
                                              UniqueFunction<void(std::optional<std::string>)> completion) {
  service_->answerLater(
      state().localeLookup, nullptr, std::move(completion),
      [service = service_, wanted = std::string(equivalentTo)]() -> std::optional<std::string> {
        return service->locked([&]() -> std::optional<std::string> {
          const auto& locales = service->state().locales;
          const auto found = locales.find(wanted);
          if (found == locales.end()) return std::nullopt;
          return found->second;
        });
      });
}

std::shared_ptr<SpeechTranscriber> SimulatedSpeechAnalysis::makeTranscriber(std::string_view supportedLocale,
                                                                            TranscriberPreset) {
  return std::make_shared<Transcriber>(service_, std::string(supportedLocale));
}

void SimulatedSpeechAnalysis::bestAvailableAudioFormat(
    const std::shared_ptr<SpeechTranscriber>&, UniqueFunction<void(std::optional<AudioFormat>)> completion) {
  const auto now = state();
  service_->answerLater(now.formatLookup, nullptr, std::move(completion),
                        [format = now.format] { return format; });
}

SpeechAnalysis::AnalyzerWithInput SimulatedSpeechAnalysis::makeAnalyzer(
    const std::shared_ptr<SpeechTranscriber>& transcriber,
    const std::vector<std::string>& contextualStrings) {
  const auto analysis = static_cast<const Transcriber&>(*transcriber).analysis();
  service_->locked([&] {
    analysis->record.contextualStrings = contextualStrings;
    analysis->record.madeAt = service_->now();
    service_->add(analysis);
  });
  return {std::make_shared<Analyzer>(service_, analysis), std::make_shared<Input>(service_, analysis)};
}

void SimulatedSpeechAnalysis::status(const std::shared_ptr<SpeechTranscriber>&,
                                     UniqueFunction<void(AssetStatus)> completion) {
  service_->answerLater(state().modelLookup, nullptr, std::move(completion), [service = service_] {
    return service->locked([&] { return service->state().model; });
  });
}

void SimulatedSpeechAnalysis::assetInstallationRequest(const std::shared_ptr<SpeechTranscriber>&,
                                                       UniqueFunction<void(InstallationRequest)> completion) {
  const auto operation = state().installationRequest;
  service_->answerLater(operation, nullptr, std::move(completion),
                        [service = service_, error = operation.error]() -> InstallationRequest {
                          if (error) return *error;
                          const bool installed = service->locked(
                              [&] { return service->state().model == AssetStatus::installed; });
                          return installed ? nullptr : std::make_shared<Installation>(service);
                        });
}

AnalysisState SimulatedSpeechAnalysis::state() const {
  return service_->locked([this] { return service_->state(); });
}

void SimulatedSpeechAnalysis::setState(AnalysisState state) {
  service_->locked([&] { service_->state() = std::move(state); });
}

bool SimulatedSpeechAnalysis::emit(std::size_t analyzer, NextResult result, double delay) {
  return service_->locked([&] {
    const auto analysis = service_->analysis(analyzer);
    if (!analysis) return false;
    service_->timeline().schedule(delay, Timeline::Context::background, analysis.get(),
                                  [service = service_, analysis, result = std::move(result)] {
                                    service->locked([&] { service->emit(*analysis, result); });
                                  });
    return true;
  });
}

std::vector<RecordedAnalysis> SimulatedSpeechAnalysis::analyses() const {
  return service_->locked([this] {
    std::vector<RecordedAnalysis> records;
    for (const auto& analysis : service_->analyses()) records.push_back(analysis->record);
    return records;
  });
}

}  // namespace palaver
