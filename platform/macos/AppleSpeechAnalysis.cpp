#include "platform/macos/AppleSpeechAnalysis.h"

#include <mutex>
#include <stdexcept>
#include <utility>

#include "platform/macos/LocaleReservations.h"
#include "platform/macos/PendingAnswers.h"
#include "platform/macos/ResultQueue.h"
#include "platform/macos/SpeechAnalyzerBridge.h"

namespace palaver {

namespace {

struct ReleaseHandle {
  void operator()(const void* handle) const { speechBridgeRelease(handle); }
};
template <typename Object>
using Handle = std::unique_ptr<Object, ReleaseHandle>;

SpeechBridgeString bridged(std::string_view text) {
  return {text.data(), text.size()};
}

std::string toString(const SpeechBridgeString& text) {
  return text.length == 0 ? std::string() : std::string(text.bytes, text.length);
}

std::optional<PlatformError> toError(const SpeechBridgeError* error) {
  if (!error) return std::nullopt;
  return PlatformError(toString(error->domain), static_cast<long>(error->code),
                       toString(error->localizedDescription));
}

SpeechBridgeAudioFormat bridged(const AudioFormat& format) {
  return {static_cast<std::uint32_t>(format.commonFormat), format.sampleRate, format.channelCount,
          format.interleaved};
}

AudioFormat toFormat(const SpeechBridgeAudioFormat& format) {
  const auto known = format.commonFormat <= static_cast<std::uint32_t>(CommonFormat::int32);
  return {known ? static_cast<CommonFormat>(format.commonFormat) : CommonFormat::other, format.sampleRate,
          format.channelCount, format.interleaved};
}

AssetStatus toStatus(SpeechBridgeAssetStatus status) {
  switch (status) {
    case SpeechBridgeAssetStatusUnsupported:
      return AssetStatus::unsupported;
    case SpeechBridgeAssetStatusSupported:
      return AssetStatus::supported;
    case SpeechBridgeAssetStatusDownloading:
      return AssetStatus::downloading;
    case SpeechBridgeAssetStatusInstalled:
      return AssetStatus::installed;
  }
  return AssetStatus::supported;
}

void answerFallible(void* context, const SpeechBridgeError* error) {
  PendingAnswers::answer(context, toError(error));
}

}  // namespace

class AppleSpeechAnalysis::Transcriber final : public SpeechTranscriber {
 public:
  Transcriber(std::string_view locale, std::shared_ptr<void> reservation,
              std::shared_ptr<PendingAnswers> pending)
      : reservation_(std::move(reservation)),
        transcriber_(speechBridgeMakeTranscriber(bridged(locale))),
        queue_(std::make_shared<ResultQueue>(std::move(pending))) {}
  ~Transcriber() override { cancelResults(); }
  Transcriber(const Transcriber&) = delete;
  Transcriber& operator=(const Transcriber&) = delete;

  void nextResult(UniqueFunction<void(NextResult)> completion) override {
    read();
    queue_->next(std::move(completion));
  }

  void cancelResults() override {
    queue_->cancel();
    const std::lock_guard guard(lock_);
    if (results_) speechBridgeCancelResults(results_.get());
  }

  // Starts reading. Does nothing when reading has already started.
  void read() {
    const std::lock_guard guard(lock_);
    if (!results_)
      results_.reset(speechBridgeReadResults(transcriber_.get(), onResult, onEnd, queue_->lend()));
  }

  SpeechBridgeTranscriber* handle() const { return transcriber_.get(); }
  const std::shared_ptr<ResultQueue>& queue() const { return queue_; }

 private:
  static void onResult(void* queue, const SpeechBridgeResult* result) {
    ResultQueue::lent(queue).push(
        {toString(result->text), result->rangeStart, result->rangeEnd, result->isFinal});
  }
  static void onEnd(void* queue, SpeechBridgeResultsOutcome outcome, const SpeechBridgeError* error) {
    const auto owner = ResultQueue::takeBack(queue);
    if (error) return owner->end(*toError(error));
    if (outcome == SpeechBridgeResultsCancelled) return owner->end(ResultsCancelled{});
    owner->end(EndOfResults{});
  }

  const std::shared_ptr<void> reservation_;
  const Handle<SpeechBridgeTranscriber> transcriber_;
  const std::shared_ptr<ResultQueue> queue_;
  std::mutex lock_;
  Handle<SpeechBridgeResults> results_;
};

// Holds the state that an analyzer and its input share. They may be used by two threads.
class AppleSpeechAnalysis::Feed {
 public:
  void prepare(const AudioFormat& format) {
    const std::lock_guard guard(lock_);
    format_ = format;
  }

  // Returns whether a buffer should be fed. If so, records that audio was fed and sets `format` to the
  // analyzer's own form of the buffer's format. Throws std::invalid_argument.
  bool take(const PCMBuffer& buffer, AudioFormat& format) {
    const std::lock_guard guard(lock_);
    if (isFinished_ || buffer.frameLength() == 0) return false;
    if (format_ && *format_ != buffer.format())
      throw std::invalid_argument("The audio is not in the format that the analyzer was prepared for");
    format = format_.value_or(buffer.format());
    wasFed_ = true;
    return true;
  }

  // Returns true for the first call only.
  bool finish() {
    const std::lock_guard guard(lock_);
    return !std::exchange(isFinished_, true);
  }
  bool wasFed() {
    const std::lock_guard guard(lock_);
    return wasFed_;
  }

 private:
  std::mutex lock_;
  std::optional<AudioFormat> format_;
  bool isFinished_ = false;
  bool wasFed_ = false;
};

class AppleSpeechAnalysis::Input final : public AnalyzerInput {
 public:
  Input(Handle<SpeechBridgeInput> input, std::shared_ptr<Feed> feed)
      : input_(std::move(input)), feed_(std::move(feed)) {}
  ~Input() override { finish(); }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // Throws std::invalid_argument or std::runtime_error when the buffer cannot be fed.
  void yield(std::shared_ptr<const PCMBuffer> buffer) override {
    AudioFormat format;
    if (!feed_->take(*buffer, format)) return;
    const void* samples = buffer->int16ChannelData();
    if (!samples) samples = buffer->floatChannelData();
    if (!samples) throw std::invalid_argument("Only 16-bit integers and 32-bit floats can be analyzed");
    const SpeechBridgeAudioBuffer audio{bridged(format), buffer->frameLength(), samples,
                                        buffer->frameCapacity()};
    if (!speechBridgeYield(input_.get(), &audio))
      throw std::runtime_error("The system makes no audio buffer for the analyzer");
  }

  void finish() override {
    if (feed_->finish()) speechBridgeFinishInput(input_.get());
  }

 private:
  const Handle<SpeechBridgeInput> input_;
  const std::shared_ptr<Feed> feed_;
};

class AppleSpeechAnalysis::Analyzer final : public SpeechAnalyzer {
 public:
  Analyzer(Handle<SpeechBridgeAnalyzer> analyzer, std::shared_ptr<Feed> feed,
           std::shared_ptr<ResultQueue> queue, std::shared_ptr<PendingAnswers> pending)
      : analyzer_(std::move(analyzer)),
        feed_(std::move(feed)),
        queue_(std::move(queue)),
        pending_(std::move(pending)) {}

  void prepareToAnalyze(const AudioFormat& format, FallibleCompletion completion) override {
    feed_->prepare(format);
    const auto wanted = bridged(format);
    // Completes immediately, because the cancellation may take any time.
    FallibleCompletion cancelOnFailure = [analyzer = analyzer_, pending = pending_,
                                          completion = std::move(completion)](auto error) {
      if (error) cancel(*analyzer, *pending, [] {});
      completion(std::move(error));
    };
    speechBridgePrepareToAnalyze(analyzer_.get(), &wanted, answerFallible,
                                 pending_->keep(std::move(cancelOnFailure)));
  }

  void finalizeAndFinishThroughEndOfInput(FallibleCompletion completion) override {
    if (feed_->wasFed())
      return speechBridgeFinalizeAndFinishThroughEndOfInput(analyzer_.get(), answerFallible,
                                                            pending_->keep(std::move(completion)));
    queue_->end(EndOfResults{});
    cancel(*analyzer_, *pending_, [completion = std::move(completion)] { completion(std::nullopt); });
  }

  void cancelAndFinishNow(UniqueFunction<void()> completion) override {
    // It is not documented whether and how the results end.
    cancel(*analyzer_, *pending_, [queue = queue_, completion = std::move(completion)] {
      queue->cancel();
      completion();
    });
  }

 private:
  static void cancel(SpeechBridgeAnalyzer& analyzer, PendingAnswers& pending,
                     UniqueFunction<void()> completion) {
    speechBridgeCancelAndFinishNow(
        &analyzer, [](void* context) { PendingAnswers::answer(context); },
        pending.keep(std::move(completion)));
  }

  const std::shared_ptr<SpeechBridgeAnalyzer> analyzer_;
  const std::shared_ptr<Feed> feed_;
  const std::shared_ptr<ResultQueue> queue_;
  const std::shared_ptr<PendingAnswers> pending_;
};

class AppleSpeechAnalysis::Installation final : public AssetInstallationRequest {
 public:
  Installation(SpeechBridgeInstallation* installation, std::shared_ptr<PendingAnswers> pending)
      : installation_(installation), pending_(std::move(pending)) {}

  void downloadAndInstall(FallibleCompletion completion) override {
    speechBridgeDownloadAndInstall(installation_.get(), answerFallible,
                                   pending_->keep(std::move(completion)));
  }

 private:
  const Handle<SpeechBridgeInstallation> installation_;
  const std::shared_ptr<PendingAnswers> pending_;
};

AppleSpeechAnalysis::AppleSpeechAnalysis()
    : pending_(std::make_shared<PendingAnswers>()),
      reservations_(std::make_shared<LocaleReservations>(pending_)) {}

AppleSpeechAnalysis::~AppleSpeechAnalysis() {
  pending_->abandon();
}

bool AppleSpeechAnalysis::isTranscriberAvailable() const {
  return speechBridgeIsTranscriberAvailable();
}

void AppleSpeechAnalysis::supportedLocale(std::string_view equivalentTo,
                                          UniqueFunction<void(std::optional<std::string>)> completion) {
  UniqueFunction<void(std::optional<std::string>)> reserve =
      [reservations = reservations_, completion = std::move(completion)](auto locale) mutable {
        if (!locale) return completion(std::nullopt);
        const auto identifier = *locale;
        reservations->reserve(identifier,
                              [completion = std::move(completion), identifier] { completion(identifier); });
      };
  speechBridgeSupportedLocale(
      bridged(equivalentTo),
      [](void* context, const SpeechBridgeString* identifier) {
        PendingAnswers::answer(context, identifier ? std::optional(toString(*identifier)) : std::nullopt);
      },
      pending_->keep(std::move(reserve)));
}

std::shared_ptr<SpeechTranscriber> AppleSpeechAnalysis::makeTranscriber(std::string_view supportedLocale,
                                                                        TranscriberPreset preset) {
  switch (preset) {
    case TranscriberPreset::progressiveTranscription:
      break;  // the only one
  }
  return std::make_shared<Transcriber>(supportedLocale, reservations_->use(supportedLocale), pending_);
}

void AppleSpeechAnalysis::bestAvailableAudioFormat(
    const std::shared_ptr<SpeechTranscriber>& compatibleWith,
    UniqueFunction<void(std::optional<AudioFormat>)> completion) {
  speechBridgeBestAvailableAudioFormat(
      static_cast<const Transcriber&>(*compatibleWith).handle(),
      [](void* context, const SpeechBridgeAudioFormat* format) {
        PendingAnswers::answer(context, format ? std::optional(toFormat(*format)) : std::nullopt);
      },
      pending_->keep(std::move(completion)));
}

SpeechAnalysis::AnalyzerWithInput AppleSpeechAnalysis::makeAnalyzer(
    const std::shared_ptr<SpeechTranscriber>& transcriber,
    const std::vector<std::string>& contextualStrings) {
  auto& module = static_cast<Transcriber&>(*transcriber);
  module.read();
  std::vector<SpeechBridgeString> phrases;
  phrases.reserve(contextualStrings.size());
  for (const auto& phrase : contextualStrings) phrases.push_back(bridged(phrase));
  Handle<SpeechBridgeInput> input(speechBridgeMakeInput());
  Handle<SpeechBridgeAnalyzer> analyzer(
      speechBridgeMakeAnalyzer(module.handle(), input.get(), phrases.data(), phrases.size()));
  const auto feed = std::make_shared<Feed>();
  return {std::make_shared<Analyzer>(std::move(analyzer), feed, module.queue(), pending_),
          std::make_shared<Input>(std::move(input), feed)};
}

void AppleSpeechAnalysis::status(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                 UniqueFunction<void(AssetStatus)> completion) {
  speechBridgeAssetStatus(
      static_cast<const Transcriber&>(*transcriber).handle(),
      [](void* context, SpeechBridgeAssetStatus status) {
        PendingAnswers::answer(context, toStatus(status));
      },
      pending_->keep(std::move(completion)));
}

void AppleSpeechAnalysis::assetInstallationRequest(const std::shared_ptr<SpeechTranscriber>& transcriber,
                                                   UniqueFunction<void(InstallationRequest)> completion) {
  // The wrapper creates the request, because it needs this object's pending answers.
  UniqueFunction<void(SpeechBridgeInstallation*, std::optional<PlatformError>)> wrap =
      [pending = pending_, completion = std::move(completion)](auto* installation, auto error) {
        if (error) return completion(std::move(*error));
        completion(installation ? std::make_shared<Installation>(installation, pending) : nullptr);
      };
  speechBridgeAssetInstallationRequest(
      static_cast<const Transcriber&>(*transcriber).handle(),
      [](void* context, SpeechBridgeInstallation* installation, const SpeechBridgeError* error) {
        const auto answer =
            PendingAnswers::take<SpeechBridgeInstallation*, std::optional<PlatformError>>(context);
        if (answer) return answer(installation, toError(error));
        const Handle<SpeechBridgeInstallation> unusedInstallation(installation);
      },
      pending_->keep(std::move(wrap)));
}

}  // namespace palaver
