// Finds words that a model repeats without end, as Whisper does over short audio.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "worker/sherpa/SpokenWord.h"

namespace palaver {

// Words or characters a second above which a repetition is the model's and not the speaker's. Fast speech has
// about 4 words, or 8 characters of Japanese.
inline constexpr double fastestRepetition = 4;

// A repetition at the end of a text: `length` words from `start` on, said again and again. The last time may
// be cut off.
struct Repetition {
  std::size_t start = 0;
  std::size_t length = 0;

  friend bool operator==(const Repetition&, const Repetition&) = default;
};

// Returns the repetition at the end of the words: the one with the most words, and of these with the shortest
// pattern. Its length is 0 when at most two words are repeated.
Repetition repetitionAtEnd(std::span<const SpokenWord> words);

// Returns whether the words end in a repetition and are more than anybody says in `voice` samples.
bool isRunaway(std::span<const SpokenWord> words, std::int64_t voice);

// Shortens the repetition at the end to what can be said in `voice` samples, but keeps its words once.
std::vector<SpokenWord> withoutRunaway(std::vector<SpokenWord> words, std::int64_t voice);

}  // namespace palaver
