// Detects speech in one audio source of one session and runs one recognition task per utterance.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/AudioSource.h"
#include "core/JSONLineWriter.h"
#include "platform/Platform.h"
#include "platform/StandardStreams.h"

namespace palaver {

// States:
//   idle       no task; the newest quiet buffers are kept as preroll
//   open       audio goes to the recognition request; a new channel starts here
//   finishing  audio ended, waiting for the task to end; new audio is held back
//
// Two clocks are used deliberately. `capturedAt` (host) only feeds the times of transcript events. Silence
// and length are measured with the helper's clock when a buffer is appended.
//
// Main thread only. Recognition callbacks hop to the main queue first.
class LegacyRecognitionChannel : public std::enable_shared_from_this<LegacyRecognitionChannel> {
 public:
  // RMS (full scale 1.0) from which a buffer counts as voice.
  static constexpr double voiceRmsThreshold = 0.008;
  // Silence that closes an utterance, ms.
  static constexpr double silenceEndpointMs = 900;
  // Longest utterance, ms.
  static constexpr double maxUtteranceMs = 20000;
  // Quiet buffers kept as preroll of the next utterance.
  static constexpr std::size_t prerollCount = 2;
  // Buffers held back while an utterance is finishing.
  static constexpr std::size_t maxPendingBuffers = 40;

  // Creates a channel and starts its first task. Calls `onDictationDisabled` on the main thread when a task
  // fails because Dictation is off. Throws PlatformError of domain "PalaverSTT": 1 when recognition is not
  // authorized, 2 when the locale is not supported, 3 when its model is not installed.
  static std::shared_ptr<LegacyRecognitionChannel> make(Platform& platform, std::string sessionId,
                                                        AudioSource source, const std::string& locale,
                                                        std::vector<std::string> vocabulary,
                                                        JSONLineWriter& writer,
                                                        std::function<void()> onDictationDisabled);
  ~LegacyRecognitionChannel();
  LegacyRecognitionChannel(const LegacyRecognitionChannel&) = delete;
  LegacyRecognitionChannel& operator=(const LegacyRecognitionChannel&) = delete;

  // Takes one buffer of 16 kHz mono 16-bit audio, captured at `capturedAt` (ms, the host's clock).
  // `sequence` is unused.
  void append(std::shared_ptr<const PCMBuffer> buffer, std::int64_t sequence, double capturedAt);

  // Stops immediately and drops the open utterance. With `discardResult`, late results of the
  // task are ignored.
  void cancel(bool discardResult);

  // Emits unfinalized text as a final, then cancels everything.
  void finish();

  // Returns the root mean square of the samples, where full scale is 1.0. Returns 0 for a buffer
  // without 16-bit samples.
  static double normalizedRms(const PCMBuffer& buffer);

  // Returns whether the error is the normal end of a quiet task: code 1110 of any domain, or a description
  // that contains "no speech".
  static bool isNoSpeechError(const PlatformError& error);

 private:
  struct TimedBuffer {
    std::shared_ptr<const PCMBuffer> buffer;
    double capturedAt;
  };

  LegacyRecognitionChannel(Platform& platform, std::string sessionId, AudioSource source,
                           const std::string& locale, std::vector<std::string> vocabulary,
                           JSONLineWriter& writer, std::function<void()> onDictationDisabled);

  void start();
  void openUtterance(double now, double capturedAt);
  void closeUtterance(std::string_view reason);
  void resetUtterance();
  void flushPending();

  void recognized(const std::optional<RecognitionResult>& result, const std::optional<PlatformError>& error);
  void handle(const RecognitionResult& result);
  void emitSyntheticFinalIfNeeded(std::string_view reason);
  Event transcript(std::string_view type, std::string_view text, double startedAt,
                   double transcribedAt) const;
  void writeFinal(std::string_view text, double startedAt, double speechEndedAt, double transcribedAt,
                  std::string_view reason);

  // Writes a line of the debug trace. Builds the message only when the trace is on.
  template <typename MakeMessage>
  void debugLog(MakeMessage makeMessage) const {
    if (debug_) platform_.standardError.write("[stt-debug] " + makeMessage() + "\n");
  }

  Platform& platform_;
  const std::string sessionId_;
  const AudioSource source_;
  const std::vector<std::string> vocabulary_;
  JSONLineWriter& writer_;
  const std::function<void()> onDictationDisabled_;
  const bool debug_;
  std::unique_ptr<SpeechRecognizer> recognizer_;
  std::shared_ptr<RecognitionRequest> request_;  // present exactly while an utterance is open
  std::unique_ptr<RecognitionTask> task_;        // outlives request_ while finishing

  std::string utteranceId_;
  std::optional<double> baseCapturedAt_;        // capture time of the utterance's first sample, ms
  std::optional<double> utteranceStartedWall_;  // helper time when the utterance was opened, ms
  std::string lastText_;
  std::optional<double> lastStartedAt_;      // ms
  std::optional<double> lastSpeechEndedAt_;  // ms
  bool finalEmitted_ = false;

  // The members below outlive an utterance.
  double lastVoiceAt_ = 0;                       // helper time of the newest voiced buffer, ms
  std::string_view endpointReason_ = "silence";  // why the newest utterance was closed; never reset
  bool discarding_ = false;
  bool isDropped_ = false;  // by the backend, because Dictation is off
  bool finishing_ = false;
  std::deque<TimedBuffer> preroll_;
  std::deque<TimedBuffer> pending_;
};

}  // namespace palaver
