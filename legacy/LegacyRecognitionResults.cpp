// Implements the part of LegacyRecognitionChannel that starts tasks and turns their results
// into transcript events.
#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "core/JSONLineWriter.h"
#include "core/Text.h"
#include "legacy/DictationProbe.h"
#include "legacy/LegacyRecognitionChannel.h"
#include "platform/Clock.h"
#include "platform/MainQueue.h"
#include "platform/Platform.h"

namespace palaver {

namespace {

constexpr long noSpeechCode = 1110;

}  // namespace

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
  if (result) handle(*result);
  if (error && !discarding_ && !isNoSpeechError(*error)) {
    if (isDictationDisabledError(*error)) {
      onDictationDisabled_();
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
