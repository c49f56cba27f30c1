#include "legacy/LegacyRecognitionChannel.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "core/JSONLineWriter.h"
#include "core/Text.h"
#include "core/UUID.h"
#include "core/VectorKernels.h"
#include "legacy/DictationProbe.h"
#include "platform/Clock.h"
#include "platform/MainQueue.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

namespace {

constexpr std::string_view errorDomain = "PalaverSTT";
constexpr long noSpeechCode = 1110;

}  // namespace

std::shared_ptr<LegacyRecognitionChannel> LegacyRecognitionChannel::make(
    Platform& platform, std::string sessionId, AudioSource source, const std::string& locale,
    std::vector<std::string> vocabulary, JSONLineWriter& writer, std::function<void()> onDictationDisabled) {
  std::shared_ptr<LegacyRecognitionChannel> channel(
      new LegacyRecognitionChannel(platform, std::move(sessionId), source, locale, std::move(vocabulary),
                                   writer, std::move(onDictationDisabled)));
  // By design: the first task is open before any audio. The first utterance therefore also takes quiet
  // buffers, and never ends by length, because no loud buffer opened it.
  channel->start();
  return channel;
}

LegacyRecognitionChannel::LegacyRecognitionChannel(Platform& platform, std::string sessionId,
                                                   AudioSource source, const std::string& locale,
                                                   std::vector<std::string> vocabulary,
                                                   JSONLineWriter& writer,
                                                   std::function<void()> onDictationDisabled)
    : platform_(platform),
      sessionId_(std::move(sessionId)),
      source_(source),
      vocabulary_(std::move(vocabulary)),
      writer_(writer),
      onDictationDisabled_(std::move(onDictationDisabled)),
      debug_(platform.process.environmentVariable("PALAVER_STT_DEBUG") == "1"),
      utteranceId_(makeUUIDString()) {
  const std::string domain(errorDomain);
  if (platform.speechRecognition.authorizationStatus() != AuthorizationStatus::authorized)
    throw PlatformError(domain, 1, "Speech Recognition permission is not authorized");
  recognizer_ = platform.speechRecognition.makeRecognizer(locale);
  if (!recognizer_) throw PlatformError(domain, 2, "Unsupported recognition locale: " + locale);
  if (!recognizer_->supportsOnDeviceRecognition())
    throw PlatformError(domain, 3, "The on-device recognition model for " + locale + " is not installed");
}

LegacyRecognitionChannel::~LegacyRecognitionChannel() {
  // Always ends the platform's task, even if neither finish() nor cancel() was called.
  if (task_) task_->cancel();
}

double LegacyRecognitionChannel::normalizedRms(const PCMBuffer& buffer) {
  const std::int16_t* const samples = buffer.int16ChannelData();
  const std::size_t count = buffer.frameLength();
  if (!samples || count == 0) return 0;
  // Sums the squares as integers. Bit-identical to summing (sample / 32768)² in doubles one by one for up to
  // 2²³ samples.
  const std::uint64_t sum = fastestVectorKernels().sumOfSquares(samples, count);
  return std::sqrt(static_cast<double>(sum) * 0x1p-30 / static_cast<double>(count));
}

void LegacyRecognitionChannel::append(std::shared_ptr<const PCMBuffer> buffer, std::int64_t /*sequence*/,
                                      double capturedAt) {
  const double now = platform_.clock.nowMilliseconds();
  const bool isVoice = normalizedRms(*buffer) >= voiceRmsThreshold;
  if (isVoice) lastVoiceAt_ = now;

  const auto keepNewest = [&](std::deque<TimedBuffer>& buffers, std::size_t limit) {
    buffers.push_back({std::move(buffer), capturedAt});
    if (buffers.size() > limit) buffers.pop_front();
  };
  if (finishing_) return keepNewest(pending_, maxPendingBuffers);
  if (!request_) {
    if (!isVoice) return keepNewest(preroll_, prerollCount);
    openUtterance(now, capturedAt);
  }
  if (!baseCapturedAt_) baseCapturedAt_ = capturedAt;
  if (request_) request_->append(std::move(buffer));

  const bool hitMax = utteranceStartedWall_ && now - *utteranceStartedWall_ >= maxUtteranceMs;
  const bool hitSilence = now - lastVoiceAt_ >= silenceEndpointMs;
  // By design: without any text neither silence nor length closes an utterance. Audio keeps flowing into it.
  if (!lastText_.empty() && (hitSilence || hitMax)) closeUtterance(hitMax ? "max-speech" : "silence");
}

void LegacyRecognitionChannel::openUtterance(double now, double capturedAt) {
  start();
  utteranceStartedWall_ = now;
  baseCapturedAt_ = preroll_.empty() ? capturedAt : preroll_.front().capturedAt;
  if (request_)
    for (auto& quiet : preroll_) request_->append(std::move(quiet.buffer));
  preroll_.clear();
}

// The task continues until the recognizer delivers its final result or an error, which ends
// the finishing state.
void LegacyRecognitionChannel::closeUtterance(std::string_view reason) {
  debugLog(
      [&] { return std::string("endpoint reason=").append(reason).append(" lastText=").append(lastText_); });
  endpointReason_ = reason;
  finishing_ = true;
  if (request_) request_->endAudio();
  request_.reset();
}

void LegacyRecognitionChannel::cancel(bool discardResult) {
  discarding_ = discardResult;
  if (task_) task_->cancel();
  task_.reset();
  request_.reset();
  finishing_ = false;
  preroll_.clear();
  pending_.clear();
  resetUtterance();
}

void LegacyRecognitionChannel::finish() {
  emitSyntheticFinalIfNeeded("flush");
  if (request_) request_->endAudio();
  cancel(true);
}

void LegacyRecognitionChannel::resetUtterance() {
  utteranceId_ = makeUUIDString();
  finalEmitted_ = false;
  baseCapturedAt_.reset();
  lastStartedAt_.reset();
  lastSpeechEndedAt_.reset();
  utteranceStartedWall_.reset();
  lastText_.clear();
}

void LegacyRecognitionChannel::flushPending() {
  for (auto& held : std::exchange(pending_, {})) append(std::move(held.buffer), 0, held.capturedAt);
}

bool LegacyRecognitionChannel::isNoSpeechError(const PlatformError& error) {
  return error.code() == noSpeechCode || containsCaseInsensitively(error.what(), "no speech");
}

// Creates a request and a task. Does nothing while a task is running: tasks never overlap.
void LegacyRecognitionChannel::start() {
  if (task_) return;
  discarding_ = false;
  request_ = recognizer_->makeRequest({.shouldReportPartialResults = true,
                                       .requiresOnDeviceRecognition = true,
                                       .taskHint = TaskHint::dictation,
                                       .contextualStrings = vocabulary_});
  // Called on the recognizer's thread. Only hops to the main queue, and moves its reference to
  // the channel there.
  task_ = recognizer_->recognitionTask(
      request_, [weakSelf = weak_from_this(), &mainQueue = platform_.mainQueue](auto result, auto error) {
        auto self = weakSelf.lock();
        if (!self) return;
        mainQueue.async([self = std::move(self), result = std::move(result), error = std::move(error)] {
          self->recognized(result, error);
        });
      });
}

// Handles one callback of a task on the main thread. Callbacks are not matched with the current task, because
// a task ends before the next one starts.
void LegacyRecognitionChannel::recognized(const std::optional<RecognitionResult>& result,
                                          const std::optional<PlatformError>& error) {
  // A callback that was queued before the channel was dropped. No final could follow its words.
  if (isDropped_) return;
  if (result) handle(*result);
  if (error && !discarding_ && !isNoSpeechError(*error)) {
    if (isDictationDisabledError(*error)) {
      onDictationDisabled_();
      isDropped_ = true;
    } else {
      writer_.error(std::string("Speech recognition failed: ") + error->what(), sessionId_, source_);
    }
  }
  const bool isFinal = result && result->isFinal;
  if (!isFinal && !error) return;

  debugLog([&] {
    const auto text = [](bool value) { return value ? "true" : "false"; };
    return std::string("task end final=") + text(isFinal) + " error=" +
           (error ? error->domain() + "#" + std::to_string(error->code()) + " " + error->what() : "none") +
           " lastText=" + lastText_ + " emitted=" + text(finalEmitted_);
  });
  emitSyntheticFinalIfNeeded("fallback");
  task_.reset();
  request_.reset();
  resetUtterance();
  finishing_ = false;
  flushPending();
}

void LegacyRecognitionChannel::handle(const RecognitionResult& result) {
  if (discarding_) return;
  const auto text = trimWhitespaceAndNewlines(result.formattedString);
  if (text.empty()) {
    // Earlier text is kept, so that the task's end can still emit it as a final.
    if (result.isFinal) debugLog([&] { return "final with empty text lastText=" + lastText_; });
    return;
  }
  const auto& segments = result.segments;
  const double firstOffset = segments.empty() ? 0 : segments.front().timestamp;
  const double lastEnd =
      segments.empty() ? firstOffset : segments.back().timestamp + segments.back().duration;
  const double base = baseCapturedAt_ ? *baseCapturedAt_ : platform_.clock.nowMilliseconds();
  const double startedAt = base + firstOffset * 1000;
  const double speechEndedAt = base + lastEnd * 1000;
  const double transcribedAt = platform_.clock.nowMilliseconds();
  lastText_ = text;
  lastStartedAt_ = startedAt;
  lastSpeechEndedAt_ = speechEndedAt;

  if (!result.isFinal) {
    writer_.write(transcript("transcript.partial", text, startedAt, transcribedAt));
    return;
  }
  writeFinal(text, startedAt, speechEndedAt, transcribedAt, endpointReason_);
  finalEmitted_ = true;
}

// Emits the last known text as a final when the recognizer delivered none.
void LegacyRecognitionChannel::emitSyntheticFinalIfNeeded(std::string_view reason) {
  if (discarding_ || lastText_.empty() || finalEmitted_) return;
  finalEmitted_ = true;
  const double now = platform_.clock.nowMilliseconds();
  const double speechEndedAt = lastSpeechEndedAt_.value_or(now);
  writeFinal(lastText_, lastStartedAt_.value_or(speechEndedAt), speechEndedAt, now, reason);
}

Event LegacyRecognitionChannel::transcript(std::string_view type, std::string_view text, double startedAt,
                                           double transcribedAt) const {
  return {{"type", type},
          {"sessionId", sessionId_},
          {"utteranceId", utteranceId_},
          {"source", rawValue(source_)},
          {"text", text},
          {"startedAt", startedAt},
          {"transcribedAt", transcribedAt}};
}

void LegacyRecognitionChannel::writeFinal(std::string_view text, double startedAt, double speechEndedAt,
                                          double transcribedAt, std::string_view reason) {
  Event event = transcript("transcript.final", text, startedAt, transcribedAt);
  event["speechEndedAt"] = speechEndedAt;
  event["latencyMs"] = std::max(0.0, transcribedAt - speechEndedAt);
  event["endpointing"] = {{"provider", "apple-sfspeech"},
                          {"reason", reason},
                          {"threshold", voiceRmsThreshold},
                          {"minSilenceMs", silenceEndpointMs}};
  writer_.write(event);
}

}  // namespace palaver
