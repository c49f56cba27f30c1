// Decides what an offline model decodes next while speech goes on, and which words of its answers to show.
//
// An offline model takes whole utterances. The window is the audio from the last commit to now; it is decoded
// again and again while it grows:
//
//   first       1.5 s after the voice began, or in the first pause
//   growing     when twice the cost of the last decoding has passed, at least 500 ms, and there was voice
//   since in a pause  as soon as 400 ms of quiet follow voice, at least 500 ms after the last decoding
//   settling    when the window is too long and no word is agreed on: its audio up to a pause, which is then
//   committed last        after the end of the audio, unless the last decoding already had all the voice
//
// A word on which two decodings in a row agree is stable: later decodings add words after it and never change
// it. The newest word of a decoding is never stable, because it may be cut off. Stable words leave the window
// (are committed) when it is longer than 10 s, and all words do in a pause of 2 s.
//
// Quiet audio at the edges of the window is not decoded, and words in quiet audio are invented: they are left
// out. The first token of a decoding often has the time 0 whatever precedes it, so its word starts where the
// voice starts.
//
// Time is audio time: positions and costs are in samples. Not thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "worker/sherpa/Loudness.h"
#include "worker/sherpa/SpokenWord.h"

namespace palaver {

class GrowingWindow {
 public:
  static constexpr std::int64_t firstLength = 3 * speechSampleRate / 2;  // from the start of the voice
  static constexpr std::int64_t shortestInterval = speechSampleRate / 2;
  static constexpr std::int64_t costFactor = 2;
  static constexpr std::int64_t trustedLength = 3 * speechSampleRate;  // from which a decoding can agree
  static constexpr std::int64_t pauseLength = 2 * speechSampleRate / 5;
  static constexpr std::int64_t commitLength =
      10 * speechSampleRate;  // from which agreed words are committed
  static constexpr std::int64_t settleLength = 15 * speechSampleRate;  // from which unagreed audio is settled
  static constexpr std::int64_t longPause = 2 * speechSampleRate;      // after which all words are committed
  static constexpr std::int64_t longestLength = 28 * speechSampleRate;   // of one decoding
  static constexpr std::int64_t margin = 3 * speechSampleRate / 10;      // quiet audio kept around voice
  static constexpr std::int64_t leastVoice = 3 * speechSampleRate / 50;  // voice that is worth decoding
  // Distance of a word from voice at which it counts as invented.
  static constexpr std::int64_t voiceDistance = speechSampleRate / 2;

  struct Decoding {
    std::int64_t from = 0;  // samples [from, to) of the request, never more than longestLength
    std::int64_t to = 0;
    bool isSettling = false;
    bool isLast = false;
  };

  void append(std::span<const std::int16_t> samples);
  void endAudio() { isEnded_ = true; }

  // Returns what to decode now, or none when nothing is due.
  std::optional<Decoding> next() const;

  // What a model returned for a decoding. Positions are those of the request.
  struct Answer {
    std::vector<SpokenWord> words;
    bool hasTimes = false;  // the times are the model's and not estimates
    std::int64_t cost = 0;  // time that the decoding took, in samples
  };
  void decoded(const Decoding& decoding, Answer answer);

  // Whether the audio has ended and all of it has been decoded.
  bool isFinished() const { return isEnded_ && !next(); }

  // Returns the words to show.
  std::vector<SpokenWord> words() const;

  // Audio before this sample is not needed any more.
  std::int64_t neededFrom() const { return start_; }

  std::int64_t length() const { return loudness_.length(); }

 private:
  std::int64_t voiceStart() const;
  std::int64_t voiceEnd() const { return loudness_.voiceEnd(decodedTo_); }
  bool hasNewVoice() const { return loudness_.voiced(std::max(decodedTo_, start_), length()) > 0; }
  Decoding whole(std::int64_t from) const;
  Decoding settling(std::int64_t from) const;
  void mendFirstTime(const Decoding& decoding, std::vector<SpokenWord>& words) const;
  void dropInvented(std::vector<SpokenWord>& words) const;
  void settle(const Decoding& decoding, std::vector<SpokenWord> words);
  void merge(const Decoding& decoding, std::vector<SpokenWord> words);
  void commitTo(std::int64_t sample, std::size_t count);
  void commitAgreed();
  void commitInPause();
  void skipQuiet();

  Loudness loudness_;
  bool isEnded_ = false;
  std::int64_t start_ = 0;      // of the window
  std::int64_t decodedTo_ = 0;  // end of the newest decoding's audio
  std::int64_t decodedAt_ = 0;  // length of the audio when the newest decoding was reported
  std::int64_t cost_ = 0;       // of the newest decoding
  bool hasDecoded_ = false;     // in this window
  std::vector<SpokenWord> committed_;
  std::vector<SpokenWord> current_;  // words of the window
  bool isTrusted_ = false;           // current_ is from a decoding of trustedLength
  std::size_t stableCount_ = 0;      // words at the start of current_ that stay
};

// Returns how many words at the start of `words` correspond best to `prefix`, by least edits. Among equals
// the number nearest to the length of `prefix`.
std::size_t matchingLength(std::span<const SpokenWord> prefix, std::span<const SpokenWord> words);

}  // namespace palaver
