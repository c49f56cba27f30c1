#include "apple-stand-ins/swift/AnalysisBehaviour.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "apple-stand-ins/swift/AnalysisSeam/AnalysisSeam.h"

namespace palaver {

namespace {

constexpr const char* speechErrorDomain = "SFSpeechErrorDomain";

// Names as in SFSpeechError.Code (Apple's documentation). Numbers from public reports, unverified.
enum SpeechErrorCode : long {
  notSubscribed = 1,
  assetLocaleNotAllocated = 10,
  tooManyAssetLocalesAllocated = 11,
  insufficientResources = 16
};

// Delivers exactly one answer to a waiting Swift caller: "cancelled" if the question is destroyed unanswered.
class Question {
 public:
  Question(AnalysisSeamCompletion completion, void* context) : completion_(completion), context_(context) {}
  ~Question() { answer(PlatformError("CancellationError", 1, "")); }
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;

  void answer(const std::optional<PlatformError>& error) {
    AnalysisSeamAnswer answer{};
    if (error) {
      answer.errorDomain = error->domain().c_str();
      answer.errorCode = error->code();
      answer.errorText = error->what();
    }
    send(answer);
  }
  void answerText(const std::optional<std::string>& text) {
    AnalysisSeamAnswer answer{};
    if (text) {
      answer.text = text->c_str();
      answer.textLength = text->size();
    }
    send(answer);
  }
  void answerNumber(std::int64_t number) {
    AnalysisSeamAnswer answer{};
    answer.number = number;
    send(answer);
  }
  void answerFormat(const std::optional<AudioFormat>& format) {
    AnalysisSeamAnswer answer{};
    AnalysisSeamFormat seamFormat{};
    if (format) {
      seamFormat = {static_cast<std::uint32_t>(format->commonFormat), format->sampleRate,
                    format->channelCount, format->interleaved};
      answer.format = &seamFormat;
    }
    send(answer);
  }

 private:
  void send(const AnalysisSeamAnswer& answer) {
    if (!wasAnswered_.exchange(true)) completion_(context_, &answer);
  }

  const AnalysisSeamCompletion completion_;
  void* const context_;
  std::atomic<bool> wasAnswered_ = false;
};

using QuestionPointer = std::shared_ptr<Question>;

AudioFormat toFormat(const AnalysisSeamFormat& format) {
  return {static_cast<CommonFormat>(format.commonFormat), format.sampleRate, format.channelCount,
          format.interleaved};
}

// Passes all results of one transcriber to Swift, one after the other.
class Pump : public std::enable_shared_from_this<Pump> {
 public:
  Pump(const std::shared_ptr<SpeechTranscriber>& transcriber, AnalysisSeamResultHandler handler,
       void* context)
      : transcriber_(transcriber), handler_(handler), context_(context) {}
  ~Pump() { end(PlatformError("CancellationError", 1, "")); }
  Pump(const Pump&) = delete;
  Pump& operator=(const Pump&) = delete;

  // A destroyed transcriber counts as cancelled results.
  void next() {
    const auto transcriber = transcriber_.lock();
    if (!transcriber) return;
    transcriber->nextResult([self = shared_from_this()](NextResult next) {
      if (const auto* const result = std::get_if<TranscriptionResult>(&next)) {
        const AnalysisSeamResult seamResult{result->text.data(), result->text.size(), result->rangeStart,
                                            result->rangeEnd, result->isFinal};
        self->handler_(self->context_, &seamResult, nullptr);
        return self->next();
      }
      if (const auto* const error = std::get_if<PlatformError>(&next)) return self->end(*error);
      if (std::holds_alternative<ResultsCancelled>(next))
        return self->end(PlatformError("CancellationError", 1, ""));
      self->end(std::nullopt);
    });
  }

 private:
  void end(const std::optional<PlatformError>& error) {
    if (std::exchange(hasEnded_, true)) return;
    AnalysisSeamAnswer answer{};
    if (error) {
      answer.errorDomain = error->domain().c_str();
      answer.errorCode = error->code();
      answer.errorText = error->what();
    }
    handler_(context_, nullptr, &answer);
  }

  const std::weak_ptr<SpeechTranscriber> transcriber_;  // owns the pump while it waits
  const AnalysisSeamResultHandler handler_;
  void* const context_;
  bool hasEnded_ = false;
};

struct Transcriber {
  std::shared_ptr<SpeechTranscriber> transcriber;
  std::string locale;
};

struct Analyzer {
  SpeechAnalysis::AnalyzerWithInput parts;
  std::string locale;
};

}  // namespace

// Maps handles to framework objects and dispatches questions to them. One lock guards all. The analysis is
// called without it.
class AnalysisSeam : public std::enable_shared_from_this<AnalysisSeam> {
 public:
  AnalysisSeam(SpeechAnalysis& analysis, AnalysisQuirks quirks)
      : analysis_(analysis),
        quirks_(std::move(quirks)),
        reserved_(quirks_.reservedLocales.begin(), quirks_.reservedLocales.end()) {}

  // Runs a call on the installed behaviour, if any. Destroying the behaviour waits for the end of the call.
  template <typename Call>
  static void with(Call call) {
    std::shared_ptr<AnalysisSeam> seam;
    {
      const std::lock_guard guard(lock_);
      if (!current_) return;
      seam = current_;
      ++seam->calls_;
    }
    call(*seam);
    const std::lock_guard guard(lock_);
    --seam->calls_;
    changed_.notify_all();
  }

  static void install(std::shared_ptr<AnalysisSeam> seam) {
    const std::lock_guard guard(lock_);
    if (current_) std::abort();  // one at a time
    current_ = std::move(seam);
  }

  void remove() {
    std::map<std::int64_t, Transcriber> transcribers;
    std::map<std::int64_t, Analyzer> analyzers;
    std::map<std::int64_t, std::shared_ptr<AssetInstallationRequest>> installations;
    std::vector<QuestionPointer> unanswered;
    std::unique_lock lock(lock_);
    current_ = nullptr;
    changed_.wait(lock, [this] { return calls_ == 0; });
    transcribers.swap(transcribers_);
    analyzers.swap(analyzers_);
    installations.swap(installations_);
    unanswered.swap(unanswered_);
    lock.unlock();
    for (const auto& [number, module] : transcribers) endReading(module);
  }

  bool waitForPreparedAnalyzers(std::size_t count) const {
    return waitFor(std::chrono::seconds(60), [&] { return prepared_.size() == count; });
  }
  bool waitForObjects(std::size_t count, std::chrono::milliseconds deadline) const {
    return waitFor(deadline,
                   [&] { return transcribers_.size() + analyzers_.size() + installations_.size() == count; });
  }
  bool losesUnreadResults() const { return quirks_.unreadResultsAreLost; }
  SpeechAnalysis& analysis() { return analysis_; }

  std::int64_t makeTranscriber(std::string locale) {
    auto transcriber = analysis_.makeTranscriber(locale, TranscriberPreset::progressiveTranscription);
    const std::lock_guard guard(lock_);
    transcribers_[++newest_] = {std::move(transcriber), std::move(locale)};
    return newest_;
  }

  std::int64_t makeAnalyzer(std::int64_t number, const std::vector<std::string>& phrases) {
    const auto module = find(transcribers_, number);
    if (!module) return 0;
    auto parts = analysis_.makeAnalyzer(module->transcriber, phrases);
    const std::lock_guard guard(lock_);
    analyzers_[++newest_] = {std::move(parts), module->locale};
    return newest_;
  }

  std::shared_ptr<SpeechTranscriber> transcriber(std::int64_t number) {
    const auto module = find(transcribers_, number);
    return module ? module->transcriber : nullptr;
  }

  void bestFormat(std::int64_t number, const QuestionPointer& question) {
    const auto module = find(transcribers_, number);
    if (!module) return;
    analysis_.bestAvailableAudioFormat(module->transcriber,
                                       [question](auto format) { question->answerFormat(format); });
  }

  void status(std::int64_t number, const QuestionPointer& question) {
    const auto module = find(transcribers_, number);
    if (!module) return;
    analysis_.assetInventory().status(
        module->transcriber, [question, reported = quirks_.reportedStatus,
                              isReserved = isReserved(module->locale)](AssetStatus status) {
          if (!isReserved && status == AssetStatus::installed) status = AssetStatus::supported;
          question->answerNumber(static_cast<std::int64_t>(reported.value_or(status)));
        });
  }

  void reserve(std::string locale, const QuestionPointer& question) {
    if (quirks_.reservationError) return question->answer(quirks_.reservationError);
    std::unique_lock lock(lock_);
    const bool isNew = reserved_.count(locale) == 0;
    const bool isRefused = isNew && reserved_.size() >= quirks_.maxReservedLocales;
    if (!isRefused) reserved_.insert(std::move(locale));
    lock.unlock();
    if (isRefused)
      return question->answer(
          PlatformError(speechErrorDomain, tooManyAssetLocalesAllocated, "Too many allocated locales"));
    question->answerNumber(isNew ? 1 : 0);
  }

  void reservedLocales(const QuestionPointer& question) {
    std::string lines;
    for (const auto& locale : reserved()) lines += locale + "\n";
    question->answerText(lines);
  }

  void release(const std::string& locale, const QuestionPointer& question) {
    std::unique_lock lock(lock_);
    const auto released = reserved_.erase(locale);
    lock.unlock();
    question->answerNumber(static_cast<std::int64_t>(released));
  }

  std::set<std::string> reserved() const {
    const std::lock_guard guard(lock_);
    return reserved_;
  }

  void installationRequest(std::int64_t number, const QuestionPointer& question) {
    const auto module = find(transcribers_, number);
    if (!module) return;
    if (!isReserved(module->locale)) {
      if (quirks_.unreservedRequestIsNull) return question->answerNumber(0);
      return question->answer(
          PlatformError(speechErrorDomain, notSubscribed,
                        "The program is not subscribed to transcription." + module->locale));
    }
    analysis_.assetInventory().assetInstallationRequest(
        module->transcriber, [self = weak_from_this(), question](AssetInventory::InstallationRequest answer) {
          if (const auto* const error = std::get_if<PlatformError>(&answer)) return question->answer(*error);
          const auto seam = self.lock();
          const auto request = std::get<std::shared_ptr<AssetInstallationRequest>>(answer);
          question->answerNumber(seam && request ? seam->add(request) : 0);
        });
  }

  void download(std::int64_t number, const QuestionPointer& question) {
    const auto request = find(installations_, number);
    if (request) (*request)->downloadAndInstall([question](auto error) { question->answer(error); });
  }

  void prepare(std::int64_t number, const std::optional<AudioFormat>& format,
               const QuestionPointer& question) {
    const auto analyzer = find(analyzers_, number);
    if (!analyzer) return;
    if (const auto refusal = take(number, analyzer->locale)) return question->answer(refusal);
    if (!format) return question->answer(std::nullopt);
    analyzer->parts.analyzer->prepareToAnalyze(*format, [question](auto error) { question->answer(error); });
  }

  void yield(std::int64_t number, std::shared_ptr<const PCMBuffer> buffer) {
    const auto analyzer = find(analyzers_, number);
    if (!analyzer) return;
    if (buffer->frameLength() > 0) {
      const std::lock_guard guard(lock_);
      fed_.insert(number);
    }
    analyzer->parts.input->yield(std::move(buffer));
  }

  void finishInput(std::int64_t number) {
    const auto analyzer = find(analyzers_, number);
    if (analyzer) analyzer->parts.input->finish();
  }

  void finish(std::int64_t number, QuestionPointer question) {
    const auto analyzer = find(analyzers_, number);
    if (!analyzer) return;
    if (quirks_.finishingWithoutAudioIsNeverAnswered) {
      const std::lock_guard guard(lock_);
      if (fed_.count(number) == 0) return unanswered_.push_back(std::move(question));
    }
    analyzer->parts.analyzer->finalizeAndFinishThroughEndOfInput(
        [self = weak_from_this(), number, question](auto error) {
          if (const auto seam = self.lock()) seam->giveBack(number);
          question->answer(error);
        });
  }

  void cancel(std::int64_t number, const QuestionPointer& question) {
    const auto analyzer = find(analyzers_, number);
    if (!analyzer) return;
    analyzer->parts.analyzer->cancelAndFinishNow([self = weak_from_this(), number, question] {
      if (const auto seam = self.lock()) seam->giveBack(number);
      question->answer(std::nullopt);
    });
  }

  void forget(std::int64_t number) {
    Transcriber transcriber;
    Analyzer analyzer;
    std::shared_ptr<AssetInstallationRequest> installation;
    std::unique_lock lock(lock_);
    if (const auto node = transcribers_.extract(number)) transcriber = node.mapped();
    if (const auto node = analyzers_.extract(number)) analyzer = node.mapped();
    if (const auto node = installations_.extract(number)) installation = node.mapped();
    lock.unlock();
    endReading(transcriber);
  }

 private:
  template <typename Objects>
  std::optional<typename Objects::mapped_type> find(const Objects& objects, std::int64_t number) {
    const std::lock_guard guard(lock_);
    const auto found = objects.find(number);
    if (found == objects.end()) return std::nullopt;
    return found->second;
  }

  // No reader remains. A reader that waits forever would keep the transcriber alive.
  static void endReading(const Transcriber& module) {
    if (module.transcriber) module.transcriber->cancelResults();
  }

  template <typename Condition>
  static bool waitFor(std::chrono::milliseconds deadline, Condition condition) {
    std::unique_lock lock(lock_);
    return changed_.wait_for(lock, deadline, condition);
  }

  std::int64_t add(std::shared_ptr<AssetInstallationRequest> request) {
    const std::lock_guard guard(lock_);
    installations_[++newest_] = std::move(request);
    return newest_;
  }

  bool isReserved(const std::string& locale) const { return reserved().count(locale) != 0; }

  // Counts an analyzer. Returns why it must not be prepared, or none.
  std::optional<PlatformError> take(std::int64_t number, const std::string& locale) {
    const std::lock_guard guard(lock_);
    prepared_.insert(number);
    if (quirks_.maxPreparedAnalyzers && prepared_.size() > *quirks_.maxPreparedAnalyzers)
      return PlatformError(speechErrorDomain, insufficientResources, "Too many simultaneous requests");
    if (reserved_.count(locale) == 0)
      return PlatformError(speechErrorDomain, assetLocaleNotAllocated,
                           "The module uses a locale that is not allocated");
    return std::nullopt;
  }

  void giveBack(std::int64_t number) {
    const std::lock_guard guard(lock_);
    prepared_.erase(number);
    changed_.notify_all();
  }

  static std::mutex lock_;
  static std::condition_variable changed_;
  static std::shared_ptr<AnalysisSeam> current_;
  // shared by all behaviours, so that a late call cannot reach another behaviour's object
  static std::int64_t newest_;

  SpeechAnalysis& analysis_;
  const AnalysisQuirks quirks_;
  std::size_t calls_ = 0;
  std::map<std::int64_t, Transcriber> transcribers_;
  std::map<std::int64_t, Analyzer> analyzers_;
  std::map<std::int64_t, std::shared_ptr<AssetInstallationRequest>> installations_;
  std::set<std::int64_t> prepared_;
  std::set<std::int64_t> fed_;
  std::set<std::string> reserved_;
  std::vector<QuestionPointer> unanswered_;
};

std::mutex AnalysisSeam::lock_;
std::condition_variable AnalysisSeam::changed_;
std::shared_ptr<AnalysisSeam> AnalysisSeam::current_;
std::int64_t AnalysisSeam::newest_ = 0;

AnalysisBehaviour::AnalysisBehaviour(SpeechAnalysis& analysis, AnalysisQuirks quirks)
    : seam_(std::make_shared<AnalysisSeam>(analysis, std::move(quirks))) {
  AnalysisSeam::install(seam_);
}

AnalysisBehaviour::~AnalysisBehaviour() {
  seam_->remove();
}

bool AnalysisBehaviour::waitForPreparedAnalyzers(std::size_t count) const {
  return seam_->waitForPreparedAnalyzers(count);
}

std::set<std::string> AnalysisBehaviour::reservedLocales() const {
  return seam_->reserved();
}

bool AnalysisBehaviour::waitForObjects(std::size_t count, std::chrono::milliseconds deadline) const {
  return seam_->waitForObjects(count, deadline);
}

}  // namespace palaver

// Functions called by Swift. A question without an object or a behaviour is answered as cancelled.

using palaver::AnalysisSeam;

namespace {

std::mutex samplesLock;

palaver::QuestionPointer ask(AnalysisSeamCompletion completion, void* context) {
  return std::make_shared<palaver::Question>(completion, context);
}

}  // namespace

bool analysisSeamIsAvailable() {
  bool isAvailable = false;
  AnalysisSeam::with([&](auto& seam) { isAvailable = seam.analysis().isTranscriberAvailable(); });
  return isAvailable;
}

void analysisSeamSupportedLocale(const char* equivalentTo, size_t length, AnalysisSeamCompletion completion,
                                 void* context) {
  const auto question = ask(completion, context);
  AnalysisSeam::with([&](auto& seam) {
    seam.analysis().supportedLocale({equivalentTo, length},
                                    [question](auto locale) { question->answerText(locale); });
  });
}

int64_t analysisSeamMakeTranscriber(const char* locale, size_t length) {
  std::int64_t number = 0;
  AnalysisSeam::with([&](auto& seam) { number = seam.makeTranscriber({locale, length}); });
  return number;
}

void analysisSeamBestFormat(int64_t transcriber, AnalysisSeamCompletion completion, void* context) {
  const auto question = ask(completion, context);
  AnalysisSeam::with([&](auto& seam) { seam.bestFormat(transcriber, question); });
}

void analysisSeamReserve(const char* locale, size_t length, AnalysisSeamCompletion completion,
                         void* context) {
  const auto question = ask(completion, context);
  AnalysisSeam::with([&](auto& seam) { seam.reserve({locale, length}, question); });
}

void analysisSeamReservedLocales(AnalysisSeamCompletion completion, void* context) {
  const auto question = ask(completion, context);
  AnalysisSeam::with([&](auto& seam) { seam.reservedLocales(question); });
}

void analysisSeamRelease(const char* locale, size_t length, AnalysisSeamCompletion completion,
                         void* context) {
  const auto question = ask(completion, context);
  AnalysisSeam::with([&](auto& seam) { seam.release({locale, length}, question); });
}

void analysisSeamStatus(int64_t transcriber, AnalysisSeamCompletion completion, void* context) {
  const auto question = ask(completion, context);
  AnalysisSeam::with([&](auto& seam) { seam.status(transcriber, question); });
}

void analysisSeamInstallationRequest(int64_t transcriber, AnalysisSeamCompletion completion, void* context) {
  const auto question = ask(completion, context);
  AnalysisSeam::with([&](auto& seam) { seam.installationRequest(transcriber, question); });
}

void analysisSeamDownload(int64_t installation, AnalysisSeamCompletion completion, void* context) {
  const auto question = ask(completion, context);
  AnalysisSeam::with([&](auto& seam) { seam.download(installation, question); });
}

bool analysisSeamLosesUnreadResults() {
  bool losesThem = false;
  AnalysisSeam::with([&](auto& seam) { losesThem = seam.losesUnreadResults(); });
  return losesThem;
}

int64_t analysisSeamMakeAnalyzer(int64_t transcriber, const char* const* phrases, const size_t* lengths,
                                 size_t count) {
  std::vector<std::string> strings;
  for (std::size_t i = 0; i < count; ++i) strings.emplace_back(phrases[i], lengths[i]);
  std::int64_t number = 0;
  AnalysisSeam::with([&](auto& seam) { number = seam.makeAnalyzer(transcriber, strings); });
  return number;
}

void analysisSeamPumpResults(int64_t transcriber, AnalysisSeamResultHandler handler, void* context) {
  std::shared_ptr<palaver::SpeechTranscriber> module;
  AnalysisSeam::with([&](auto& seam) { module = seam.transcriber(transcriber); });
  std::make_shared<palaver::Pump>(module, handler, context)->next();
}

void analysisSeamPrepare(int64_t analyzer, const AnalysisSeamFormat* format,
                         AnalysisSeamCompletion completion, void* context) {
  const auto question = ask(completion, context);
  AnalysisSeam::with([&](auto& seam) {
    seam.prepare(analyzer, format ? std::optional(palaver::toFormat(*format)) : std::nullopt, question);
  });
}

void analysisSeamYield(int64_t analyzer, const AnalysisSeamFormat* format, const void* const* channels,
                       uint32_t frames) {
  const auto buffer = std::make_shared<palaver::PCMBuffer>(palaver::toFormat(*format), frames);
  const std::size_t runs = format->interleaved ? 1 : format->channelCount;
  const std::size_t samples = frames * (format->interleaved ? format->channelCount : std::size_t{1});
  {
    const std::lock_guard guard(samplesLock);
    for (std::uint32_t run = 0; run < runs; ++run)
      std::memcpy(buffer->int16ChannelData(run), channels[run], samples * sizeof(std::int16_t));
  }
  buffer->setFrameLength(frames);
  AnalysisSeam::with([&](auto& seam) { seam.yield(analyzer, buffer); });
}

void analysisSeamFinishInput(int64_t analyzer) {
  AnalysisSeam::with([&](auto& seam) { seam.finishInput(analyzer); });
}

void analysisSeamFinish(int64_t analyzer, AnalysisSeamCompletion completion, void* context) {
  const auto question = ask(completion, context);
  AnalysisSeam::with([&](auto& seam) { seam.finish(analyzer, question); });
}

void analysisSeamCancel(int64_t analyzer, AnalysisSeamCompletion completion, void* context) {
  const auto question = ask(completion, context);
  AnalysisSeam::with([&](auto& seam) { seam.cancel(analyzer, question); });
}

void* analysisSeamAllocateSamples(size_t bytes) {
  return std::calloc(bytes, 1);
}

void analysisSeamFreeSamples(void* samples) {
  const std::lock_guard guard(samplesLock);
  std::free(samples);
}

void analysisSeamForget(int64_t handle) {
  AnalysisSeam::with([&](auto& seam) { seam.forget(handle); });
}
