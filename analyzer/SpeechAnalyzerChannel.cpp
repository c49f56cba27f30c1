#include "analyzer/SpeechAnalyzerChannel.h"

#include <algorithm>
#include <asio/co_spawn.hpp>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "analyzer/Await.h"
#include "analyzer/Spawn.h"
#include "core/Text.h"
#include "core/UUID.h"

namespace palaver {

namespace {

constexpr std::size_t epochLength = 8;  // characters

PlatformError channelError(long code, const std::string& text) {
  return {"PalaverSTT", code, text};
}

// Returns 0, the start of the audio, for the platform's invalid or indefinite times.
double finite(double seconds) {
  return std::isfinite(seconds) ? seconds : 0;
}

// Formats milliseconds since the start of the audio for an identifier, truncated.
std::string wholeMilliseconds(double milliseconds) {
  constexpr double limit = 0x1p63;
  return std::to_string(milliseconds < limit ? static_cast<std::int64_t>(milliseconds)
                                             : std::numeric_limits<std::int64_t>::max());
}

}  // namespace

struct SpeechAnalyzerChannel::Parts {
  SerialExecutor executor;
  Platform& platform;
  JSONLineWriter& writer;
  std::string sessionId;
  AudioSource source;
  std::shared_ptr<SpeechTranscriber> transcriber;
  SpeechAnalysis::AnalyzerWithInput analyzer;
  AudioFormat analyzerFormat;
  std::string epoch;
};

asio::awaitable<std::shared_ptr<SpeechAnalyzerChannel>> SpeechAnalyzerChannel::make(
    SerialExecutor executor, Platform& platform, JSONLineWriter& writer, std::string sessionId,
    AudioSource source, std::string localeIdentifier, std::vector<std::string> vocabulary) {
  auto epoch = makeUUIDString().substr(0, epochLength);
  auto& analysis = platform.speechAnalysis;
  const auto locale = co_await completionOf<std::optional<std::string>>(
      [&](auto completion) { analysis.supportedLocale(localeIdentifier, std::move(completion)); });
  if (!locale) throw channelError(10, "Unsupported SpeechAnalyzer locale: " + localeIdentifier);
  auto transcriber = analysis.makeTranscriber(*locale, TranscriberPreset::progressiveTranscription);

  const auto status = co_await completionOf<AssetStatus>(
      [&](auto completion) { analysis.assetInventory().status(transcriber, std::move(completion)); });
  if (status != AssetStatus::installed)
    throw channelError(11, "SpeechAnalyzer model is not installed; run npm run helper:install-model");

  const auto format = co_await completionOf<std::optional<AudioFormat>>(
      [&](auto completion) { analysis.bestAvailableAudioFormat(transcriber, std::move(completion)); });
  if (!format) throw channelError(12, "No SpeechAnalyzer-compatible audio format is available");

  auto analyzer = analysis.makeAnalyzer(transcriber, vocabulary);
  co_await successOf(
      [&](auto completion) { analyzer.analyzer->prepareToAnalyze(*format, std::move(completion)); });

  const std::shared_ptr<SpeechAnalyzerChannel> channel(
      new SpeechAnalyzerChannel({executor, platform, writer, std::move(sessionId), source,
                                 std::move(transcriber), std::move(analyzer), *format, std::move(epoch)}));
  // Must start before any audio is fed, because results without a reader are lost.
  spawn(executor, runResultLoop(channel));
  co_return channel;
}

SpeechAnalyzerChannel::SpeechAnalyzerChannel(Parts parts)
    : executor_(std::move(parts.executor)),
      platform_(parts.platform),
      writer_(parts.writer),
      sessionId_(std::move(parts.sessionId)),
      source_(parts.source),
      transcriber_(std::move(parts.transcriber)),
      analyzer_(std::move(parts.analyzer.analyzer)),
      input_(std::move(parts.analyzer.input)),
      analyzerFormat_(parts.analyzerFormat),
      epoch_(std::move(parts.epoch)),
      converter_(parts.platform.audioBuffers, parts.platform.audioConverters) {}

SpeechAnalyzerChannel::~SpeechAnalyzerChannel() = default;

void SpeechAnalyzerChannel::append(const std::shared_ptr<const PCMBuffer>& buffer, double capturedAt) {
  assert(executor_.running_in_this_thread());
  if (!baseCapturedAt_) baseCapturedAt_ = capturedAt;
  input_->yield(converter_.convert(buffer, analyzerFormat_));
}

asio::awaitable<void> SpeechAnalyzerChannel::finish() {
  assert(executor_.running_in_this_thread());
  const auto self = shared_from_this();
  input_->finish();
  co_await successOf(
      [this](auto completion) { analyzer_->finalizeAndFinishThroughEndOfInput(std::move(completion)); });
  co_await resultLoopEnded_.value();
}

asio::awaitable<void> SpeechAnalyzerChannel::cancel() {
  assert(executor_.running_in_this_thread());
  const auto self = shared_from_this();
  cancelled_ = true;
  input_->finish();
  co_await completionOf<bool>([this](auto completion) {
    analyzer_->cancelAndFinishNow([completion = std::move(completion)] { completion(true); });
  });
  transcriber_->cancelResults();
}

asio::awaitable<void> SpeechAnalyzerChannel::runResultLoop(std::shared_ptr<SpeechAnalyzerChannel> channel) {
  const SerialPromise<bool>::Keeper keeper(channel->resultLoopEnded_);
  for (;;) {
    const auto next = co_await completionOf<NextResult>(
        [&](auto completion) { channel->transcriber_->nextResult(std::move(completion)); });
    if (channel->cancelled_) break;
    if (const auto* const error = std::get_if<PlatformError>(&next))
      channel->writer_.error(std::string("SpeechAnalyzer result stream failed: ") + error->what(),
                             channel->sessionId_, channel->source_);
    const auto* const result = std::get_if<TranscriptionResult>(&next);
    if (!result) break;
    channel->write(*result);
  }
  channel->resultLoopEnded_.resolve(true);
}

void SpeechAnalyzerChannel::write(const TranscriptionResult& result) {
  const auto text = trimWhitespaceAndNewlines(result.text);
  if (text.empty()) return;
  const double start = finite(result.rangeStart);
  const double end = finite(result.rangeEnd);
  const double transcribedAt = platform_.clock.nowMilliseconds();
  const double base = baseCapturedAt_.value_or(transcribedAt);
  const double startOffset = std::max(0.0, start) * 1000;
  const std::string_view sourceName = rawValue(source_);

  Event event{{"type", result.isFinal ? "transcript.final" : "transcript.partial"},
              {"sessionId", sessionId_},
              {"utteranceId", std::string(sessionId_)
                                  .append("-")
                                  .append(sourceName)
                                  .append("-")
                                  .append(epoch_)
                                  .append("-")
                                  .append(wholeMilliseconds(startOffset))},
              {"source", sourceName},
              {"text", text},
              {"startedAt", base + startOffset},
              {"transcribedAt", transcribedAt}};
  if (result.isFinal) {
    const double speechEndedAt = base + std::max(start, end) * 1000;
    event["speechEndedAt"] = speechEndedAt;
    event["latencyMs"] = std::max(0.0, transcribedAt - speechEndedAt);
    event["endpointing"] = {{"provider", "apple-speech-analyzer"}, {"reason", "framework"}};
  }
  writer_.write(event);
}

}  // namespace palaver
