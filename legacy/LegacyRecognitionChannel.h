// One audio stream of one session as a series of utterances: voice activity, endpointing, and what is made of
// results.
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

// Two clocks meet here on purpose. `capturedAt` comes from the host and feeds the times of transcript events
// only; every decision on silence and length uses the helper's own clock at the moment a buffer is appended.
//
// A channel is waiting (no utterance; the newest quiet buffers are kept), open (audio goes to the recognizer)
// or finishing (the utterance is closed, its task has not ended; audio is held back). A new channel is open
// at once.
//
// Lives on the main thread; the recognizer's callbacks are moved there before they touch anything.
class LegacyRecognitionChannel : public std::enable_shared_from_this<LegacyRecognitionChannel> {
 public:
  // RMS (full scale 1.0) from which a buffer counts as voice.
  static constexpr double voiceRmsThreshold = 0.008;
  // Quiet time that closes an utterance, ms.
  static constexpr double silenceEndpointMs = 900;
  // Longest utterance, ms.
  static constexpr double maxUtteranceMs = 20000;
  // Quiet buffers kept for the start of the next utterance.
  static constexpr std::size_t prerollCount = 2;
  // Buffers held back while an utterance finishes.
  static constexpr std::size_t maxPendingBuffers = 40;

  // Makes a channel and starts its first task. `onDictationDisabled` is called on the main thread when a task
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

  // Takes one buffer of 16 kHz mono 16-bit audio, captured at `capturedAt` (ms, the host's clock). `sequence`
  // is not used.
  void append(std::shared_ptr<const PCMBuffer> buffer, std::int64_t sequence, double capturedAt);

  // Stops everything at once and drops what is open. With `discardResult`, late results of the task are
  // ignored.
  void cancel(bool discardResult);

  // The orderly end: text that the recognizer has not finalised becomes a final, then everything is
  // cancelled.
  void finish();

  // Loudness of a buffer: the root mean square of its samples on a scale where full scale is 1.0; 0 for a
  // buffer without 16-bit samples.
  static double normalizedRms(const PCMBuffer& buffer);

  // Whether the error is the normal end of a quiet task: code 1110 of any domain, or a description with "no
  // speech".
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

  // Writes a line of the debug trace; the message is made only when the trace is on.
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
  std::optional<double> utteranceStartedWall_;  // helper time at which the utterance was opened, ms
  std::string lastText_;
  std::optional<double> lastStartedAt_;      // ms
  std::optional<double> lastSpeechEndedAt_;  // ms
  bool finalEmitted_ = false;

  // These outlive an utterance.
  double lastVoiceAt_ = 0;                       // helper time of the newest voiced buffer, ms
  std::string_view endpointReason_ = "silence";  // why the newest utterance was closed; never reset
  bool discarding_ = false;
  bool finishing_ = false;
  std::deque<TimedBuffer> preroll_;
  std::deque<TimedBuffer> pending_;
};

}  // namespace palaver
