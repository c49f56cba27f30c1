#include "legacy/LegacyRecognitionChannel.h"

#include <cmath>
#include <utility>

#include "core/JSONLineWriter.h"
#include "core/UUID.h"
#include "platform/Clock.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

namespace {

constexpr std::string_view errorDomain = "PalaverSTT";

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
  // 2²³ samples, and compilers vectorize it.
  std::uint64_t sum = 0;
  std::size_t i = 0;
  for (; i + 2 <= count; i += 2) {
    const auto a = static_cast<std::uint32_t>(samples[i] * samples[i]);
    const auto b = static_cast<std::uint32_t>(samples[i + 1] * samples[i + 1]);
    sum += a + b;  // at most 2³¹
  }
  if (i < count) sum += static_cast<std::uint32_t>(samples[i] * samples[i]);
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

}  // namespace palaver
