// Feeds one request's audio to a decoder, splitting long requests into several decoder utterances.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "platform/SpeechRecognition.h"
#include "worker/pocketsphinx/Decoder.h"

namespace palaver {

// The decoder keeps every frame of an utterance, so a request that stays open for hours is cut into
// several decoder utterances: in silence, in a pause, or else between two words. The newest audio is kept
// and fed to the next utterance again, so that no word is lost at a cut. Times always count from the
// request's first sample.
//
// Quiet audio before a word is not decoded, because decoding it takes more work than speech, and a source may
// be silent for most of a meeting. When the audio becomes louder, decoding begins one second earlier.
//
// The words of an unknown speaker are misrecognized more often. Until the voice is known, an utterance is
// therefore decoded again in each of its pauses, which may change its words.
//
// Used on the decoder's thread. One at a time per decoder.
class Transcription {
 public:
  // Loudness (RMS, full scale 1) below which audio is quiet. Intelligible speech is well above it.
  static constexpr double quietLevel = 0.003;
  // Samples of quiet after which an utterance without a word is ended.
  static constexpr std::int64_t quietTimeout = std::int64_t{2} * modelSampleRate;
  // Samples after which an utterance without a word is restarted.
  static constexpr std::int64_t quietLimit = std::int64_t{10} * modelSampleRate;
  // Samples of it that are decoded again, because a word may have begun in them.
  static constexpr std::int64_t quietOverlap = modelSampleRate;
  // Samples from which an utterance with words ends in the next pause.
  static constexpr std::int64_t pauseLimit = std::int64_t{30} * modelSampleRate;
  // Minimum length of that pause, samples.
  static constexpr std::int64_t pauseLength = std::int64_t{3} * modelSampleRate / 10;
  // Samples from which an utterance with words ends even without a pause, between two words.
  static constexpr std::int64_t hardLimit = std::int64_t{60} * modelSampleRate;
  // Samples of pause after which an utterance of an unknown voice is decoded again. Well below the pause of
  // about a second after which a typical caller ends the audio.
  static constexpr std::int64_t redecodePause = std::int64_t{4} * modelSampleRate / 10;
  // Samples kept for decoding again. A longer utterance is not decoded again.
  static constexpr std::int64_t keptSamples = std::int64_t{10} * modelSampleRate;
  // Longer words are misrecognized noise and are left out.
  static constexpr std::int64_t maxWordLength = std::int64_t{3} * modelSampleRate / 2;

  // The decoder must not be in an utterance.
  explicit Transcription(Decoder& decoder);
  ~Transcription();
  Transcription(const Transcription&) = delete;
  Transcription& operator=(const Transcription&) = delete;

  // Takes audio and updates text() and segments(). Throws PlatformError.
  void process(std::span<const std::int16_t> samples);

  // Ends the audio and makes text() and segments() final. Throws PlatformError.
  void finish();

  // Returns all words so far, with single spaces.
  std::string text() const;
  std::vector<TranscriptionSegment> segments() const;

 private:
  struct Word {
    std::string text;
    std::int64_t startSample;  // from the request's first sample
    std::int64_t endSample;
  };

  void startUtterance(std::int64_t sample);
  std::vector<std::int16_t> audioFrom(std::int64_t sample) const;
  void redecodeInPause();
  void updateWords();
  void cutIfLong();
  void cut(std::int64_t sample);
  std::int64_t placeToCut() const;
  std::int64_t utteranceLength() const { return received_ - utteranceStart_; }

  Decoder& decoder_;
  std::int64_t received_ = 0;        // samples of the request
  std::int64_t quiet_ = 0;           // samples of quiet at the end of the audio received
  bool inUtterance_ = false;         // whether the decoder is in an utterance
  std::int64_t utteranceStart_ = 0;  // of the decoder's utterance, from the request's first sample
  std::int64_t settledUntil_ = 0;    // sample up to which the audio has been processed
  std::deque<std::int16_t> newest_;  // the last keptSamples samples, or fewer
  std::vector<Word> settled_;        // words of earlier utterances
  std::vector<Word> current_;        // words of the current utterance
  bool isRedecoded_ = false;         // in the current pause at the utterance's end
  std::int64_t pause_ = 0;           // samples of silence at the utterance's end
};

}  // namespace palaver
