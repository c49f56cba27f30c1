// Represents recognized words with their times, and derives them from a model's tokens.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/SpeechRecognition.h"

namespace palaver {

// Hz, of all audio and sample positions here.
inline constexpr std::int64_t speechSampleRate = 16000;

struct SpokenWord {
  std::string text;       // UTF-8, with the punctuation that follows it
  bool isJoined = false;  // no space between the previous word and this one, as in Japanese
  std::int64_t startSample = 0;
  std::int64_t endSample = 0;  // at least startSample

  friend bool operator==(const SpokenWord&, const SpokenWord&) = default;
};

// One token of a model's output.
struct TimedToken {
  std::string text;  // UTF-8; a leading space starts a new word
  std::int64_t startSample = 0;
};

// Joins tokens to words. A token starts a new word when it begins with a space, or when it or the character
// before it belongs to a script without spaces and it is not punctuation. A word ends where its last token is
// punctuation, or else where the next word starts, but at most half a second after the start of its last
// token and at `endSample`.
std::vector<SpokenWord> wordsOfTokens(std::span<const TimedToken> tokens, std::int64_t endSample);

// Splits a text into words without known times and spreads them over the samples [startSample, endSample) in
// proportion to their length. The times are estimates.
std::vector<SpokenWord> wordsOfText(std::string_view text, std::int64_t startSample, std::int64_t endSample);

// The same for a text that grows and whose words so far are `earlier`. Words that have not changed keep their
// times, the others are spread over [startSample, endSample).
std::vector<SpokenWord> wordsOfGrowingText(std::string_view text, std::span<const SpokenWord> earlier,
                                           std::int64_t startSample, std::int64_t endSample);

// Returns the words of a model's result of `count` tokens with times in seconds, both as C arrays, which may
// be null. Falls back to wordsOfText() where there are no tokens or where the text is not made of them.
// The times are multiplied by `timeFactor`. `length` is that of the audio in samples.
std::vector<SpokenWord> wordsOfResult(std::string_view text, const char* const* tokens, const float* times,
                                      std::int32_t count, std::int64_t length, double timeFactor = 1);

// Removes what models write for noise: text in brackets, parentheses or asterisks, also across words, and
// music notes. An unclosed bracket reaches to the end.
std::vector<SpokenWord> withoutNoise(std::vector<SpokenWord> words);

// Returns the text in lower case (ASCII) and without punctuation, to compare words of two results.
std::string comparable(std::string_view text);

std::string joinedText(std::span<const SpokenWord> words);

// Returns a result with the joined text and one segment per word. Segments are ordered and end at the latest
// at `audioLength` (samples).
RecognitionResult makeResult(std::span<const SpokenWord> words, std::int64_t audioLength, bool isFinal);

}  // namespace palaver
