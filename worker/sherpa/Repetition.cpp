#include "worker/sherpa/Repetition.h"

#include <algorithm>
#include <string>

namespace palaver {

namespace {

constexpr std::size_t longestPattern = 12;  // words
constexpr std::size_t fewestRepeated = 3;   // words after the first time, below which it may be speech

// The words that fast speech has in the time. Characters of scripts without spaces count as half a word.
bool fits(std::span<const SpokenWord> words, std::int64_t voice) {
  double count = 0;
  for (const auto& word : words) count += word.isJoined ? 0.5 : 1;
  return count * speechSampleRate <= fastestRepetition * static_cast<double>(voice);
}

}  // namespace

Repetition repetitionAtEnd(std::span<const SpokenWord> words) {
  std::vector<std::string> texts;
  for (const auto& word : words) texts.push_back(comparable(word.text));
  Repetition best;
  std::size_t mostRepeated = fewestRepeated - 1;
  for (std::size_t length = 1; length <= std::min(longestPattern, texts.size() / 2); ++length) {
    std::size_t repeated = 0;
    while (repeated + length < texts.size() &&
           texts[texts.size() - 1 - repeated] == texts[texts.size() - 1 - repeated - length])
      ++repeated;
    if (repeated < length || repeated <= mostRepeated) continue;
    mostRepeated = repeated;
    best = {texts.size() - repeated - length, length};
  }
  return best;
}

bool isRunaway(std::span<const SpokenWord> words, std::int64_t voice) {
  return repetitionAtEnd(words).length > 0 && !fits(words, voice);
}

std::vector<SpokenWord> withoutRunaway(std::vector<SpokenWord> words, std::int64_t voice) {
  const auto repetition = repetitionAtEnd(words);
  if (repetition.length == 0 || fits(words, voice)) return words;
  const std::size_t fewest = repetition.start + repetition.length;
  // Keeps the pattern whole.
  std::size_t kept = words.size() - (words.size() - repetition.start) % repetition.length;
  while (kept > fewest && !fits(std::span(words).first(kept), voice)) kept -= repetition.length;
  words.resize(kept);
  return words;
}

}  // namespace palaver
