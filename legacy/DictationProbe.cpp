#include "legacy/DictationProbe.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <string>
#include <utility>

#include "core/PCMDecoding.h"
#include "core/Text.h"
#include "platform/AudioBuffer.h"
#include "platform/Clock.h"
#include "platform/MainQueue.h"
#include "platform/Platform.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

namespace {

constexpr long dictationDisabledCode = 1700;
constexpr double probeAudioMilliseconds = 120;
constexpr double waitSliceMilliseconds = 20;

constexpr std::array<std::pair<DictationAvailability, std::string_view>, 3> names{
    {{DictationAvailability::enabled, "enabled"},
     {DictationAvailability::disabled, "disabled"},
     {DictationAvailability::unknown, "unknown"}}};

// Records the first outcome of one probe. Shared with the recognizer's handler, which may outlive the probe
// and may run on any thread.
class Outcome {
 public:
  explicit Outcome(std::unique_ptr<Semaphore> answered) : answered_(std::move(answered)) {}

  void record(const std::optional<RecognitionResult>& result, const std::optional<PlatformError>& error) {
    const std::lock_guard guard(lock_);
    if (availability_) return;
    if (error) {
      // Any other error shows that Dictation let the recognition begin.
      availability_ =
          isDictationDisabledError(*error) ? DictationAvailability::disabled : DictationAvailability::enabled;
    } else if (result && result->isFinal) {
      availability_ = DictationAvailability::enabled;
    } else {
      return;
    }
    answered_->signal();
  }

  bool wait(double milliseconds) { return answered_->wait(milliseconds); }

  DictationAvailability read() {
    const std::lock_guard guard(lock_);
    return availability_.value_or(DictationAvailability::unknown);
  }

 private:
  std::mutex lock_;
  std::optional<DictationAvailability> availability_;
  std::unique_ptr<Semaphore> answered_;
};

}  // namespace

std::string_view wireName(DictationAvailability availability) {
  return std::ranges::find(names, availability, &decltype(names)::value_type::first)->second;
}

std::optional<DictationAvailability> dictationAvailability(std::string_view name) {
  const auto* const found = std::ranges::find(names, name, &decltype(names)::value_type::second);
  if (found == names.end()) return std::nullopt;
  return found->first;
}

bool isDictationDisabledError(const PlatformError& error) {
  if (error.code() == dictationDisabledCode) return true;
  return containsCaseInsensitively(error.what(), "dictation") &&
         containsCaseInsensitively(error.what(), "disabled");
}

DictationAvailability DictationProbe::availability(std::string_view locale, double timeout) {
  if (cached_) {
    const bool expired = cached_->availability == DictationAvailability::disabled &&
                         platform_.clock.nowMilliseconds() - cached_->checkedAt >= dictationRecheckInterval;
    if (!expired) return cached_->availability;
  }
  const auto verdict = probe(locale, timeout);
  cached_ = {verdict, platform_.clock.nowMilliseconds()};
  return verdict;
}

std::optional<DictationAvailability> DictationProbe::cachedVerdict() const {
  if (!cached_) return std::nullopt;
  return cached_->availability;
}

void DictationProbe::recordDisabled() {
  cached_ = {DictationAvailability::disabled, platform_.clock.nowMilliseconds()};
}

DictationAvailability DictationProbe::probe(std::string_view locale, double timeout) {
  if (platform_.speechRecognition.authorizationStatus() != AuthorizationStatus::authorized)
    return DictationAvailability::unknown;
  if (!platform_.speechRecognition.hasDictationSetting()) return DictationAvailability::unknown;
  const auto recognizer = platform_.speechRecognition.makeRecognizer(locale);
  if (!recognizer || !recognizer->supportsOnDeviceRecognition()) return DictationAvailability::unknown;
  const auto silence = makeSilentBuffer(probeAudioMilliseconds);
  if (!silence) return DictationAvailability::unknown;

  const auto request = recognizer->makeRequest({.shouldReportPartialResults = false,
                                                .requiresOnDeviceRecognition = true,
                                                .taskHint = TaskHint::dictation,
                                                .contextualStrings = {}});
  const auto outcome = std::make_shared<Outcome>(platform_.mainQueue.makeSemaphore());
  const auto task = recognizer->recognitionTask(
      request, [outcome](const auto& result, const auto& error) { outcome->record(result, error); });
  request->append(silence);
  request->endAudio();

  // The result may be delivered on the main thread, so the wait alternates with slices of its run loop.
  double previous = platform_.clock.nowMilliseconds();
  double deadline = previous + timeout;
  while (!outcome->wait(waitSliceMilliseconds)) {
    const double now = platform_.clock.nowMilliseconds();
    // A clock that is set back must not prolong the wait.
    if (now < previous) deadline -= previous - now;
    previous = now;
    if (now >= deadline) break;
    platform_.mainQueue.runSlice(waitSliceMilliseconds);
  }
  task->cancel();
  return outcome->read();
}

std::shared_ptr<PCMBuffer> DictationProbe::makeSilentBuffer(double milliseconds) {
  const auto format = helperAudioFormat(platform_.audioBuffers);
  if (!format) return nullptr;
  const auto frames = static_cast<std::uint32_t>(helperSampleRate * milliseconds / 1000);
  auto buffer = platform_.audioBuffers.makeBuffer(*format, frames);
  if (!buffer) return nullptr;
  auto* const samples = buffer->int16ChannelData();
  if (!samples) return nullptr;
  buffer->setFrameLength(frames);
  std::fill_n(samples, frames, std::int16_t{0});
  return buffer;
}

}  // namespace palaver
