// The audio of one request on its way through a decoder, of any length.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <vector>

#include "platform/SpeechRecognition.h"
#include "platform/linux/Decoder.h"

namespace palaver {

// The decoder keeps every frame of an utterance, so a request that stays open for hours is cut into several
// utterances of the decoder: where nothing was said, in a pause, or else between two words. The newest audio
// is kept and given again to the next one, so that no word is lost at a cut, and times always count from the
// request's first sample.
//
// Quiet audio before a word is not decoded at all, as that takes more work than speech does: a source may be
// silent for most of a meeting. When it grows louder, the decoder begins with the second before.
//
// A speaker who is not known yet is misunderstood more often. Until the voice is known, an utterance is
// therefore heard again in each of its pauses, and what it has been taken for may change.
//
// Lives on the decoder's thread, one at a time per decoder.
class Transcription {
 public:
  // Loudness (RMS, full scale 1) below which audio is quiet; speech that anybody could follow is well above.
  static constexpr double quietLevel = 0.003;
  // Samples of quiet after which an utterance without a word is given up.
  static constexpr std::int64_t patience = std::int64_t{2} * modelSampleRate;
  // Samples after which an utterance without a word is started again.
  static constexpr std::int64_t quietLimit = std::int64_t{10} * modelSampleRate;
  // Samples of it that are heard again, as a word may have begun in them.
  static constexpr std::int64_t quietOverlap = modelSampleRate;
  // Samples from which an utterance with words ends in the next pause...
  static constexpr std::int64_t pauseLimit = std::int64_t{30} * modelSampleRate;
  // ...of at least this many samples...
  static constexpr std::int64_t pauseLength = std::int64_t{3} * modelSampleRate / 10;
  // ...and from which it ends between two words.
  static constexpr std::int64_t hardLimit = std::int64_t{60} * modelSampleRate;
  // Samples of pause after which an utterance of an unknown voice is heard again: well before a caller who
  // waits for a pause of about a second ends the audio.
  static constexpr std::int64_t hearingPause = std::int64_t{4} * modelSampleRate / 10;
  // Audio kept to be given again; a longer utterance is not heard again.
  static constexpr std::int64_t keptSamples = std::int64_t{10} * modelSampleRate;
  // Longer words are noise that was taken for one, and left out.
  static constexpr std::int64_t maxWordLength = std::int64_t{3} * modelSampleRate / 2;

  // The decoder must not be in an utterance.
  explicit Transcription(Decoder& decoder);
  ~Transcription();
  Transcription(const Transcription&) = delete;
  Transcription& operator=(const Transcription&) = delete;

  // Takes audio; afterwards text() and segments() are up to date. Throws PlatformError.
  void process(std::span<const std::int16_t> samples);

  // The audio has ended: text() and segments() are final. Throws PlatformError.
  void finish();

  // All words so far, with single spaces.
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
  void hearAgainInPause();
  void listen();
  void cutIfLong();
  void cut(std::int64_t sample);
  std::int64_t placeToCut() const;
  std::int64_t utteranceLength() const { return received_ - utteranceStart_; }

  Decoder& decoder_;
  std::int64_t received_ = 0;        // samples of the request
  std::int64_t quiet_ = 0;           // samples of quiet at the end of what was received
  bool inUtterance_ = false;         // whether the decoder takes the audio
  std::int64_t utteranceStart_ = 0;  // of the decoder's utterance, from the request's first sample
  std::int64_t settledUntil_ = 0;    // sample up to which the audio has had its turn
  std::deque<std::int16_t> newest_;  // the last keptSamples, or fewer
  std::vector<Word> settled_;        // words of the utterances before
  std::vector<Word> current_;        // words of the decoder's utterance
  bool isHeardAgain_ = false;        // in the pause at its end
  std::int64_t pause_ = 0;           // samples of silence at its end
};

}  // namespace palaver
