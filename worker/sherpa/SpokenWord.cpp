#include "worker/sherpa/SpokenWord.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace palaver {

namespace {

// Length of a word's last token when nothing else is known, samples.
constexpr std::int64_t longestToken = speechSampleRate / 2;

// Reads the character at `position` of UTF-8 text and advances it. Invalid bytes count as one character each.
char32_t nextCharacter(std::string_view text, std::size_t& position) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned char first = byte(position++);
  const std::size_t following = first >= 0xF0 ? 3 : first >= 0xE0 ? 2 : first >= 0xC0 ? 1 : 0;
  if (following == 0 || position + following > text.size()) return first;
  char32_t character = first & (0x3FU >> following);
  for (std::size_t i = 0; i < following; ++i) character = character << 6 | (byte(position + i) & 0x3FU);
  position += following;
  return character;
}

char32_t firstCharacter(std::string_view text) {
  std::size_t position = 0;
  return text.empty() ? U'\0' : nextCharacter(text, position);
}

char32_t lastCharacter(std::string_view text) {
  char32_t last = U'\0';
  for (std::size_t position = 0; position < text.size();) last = nextCharacter(text, position);
  return last;
}

constexpr bool isBetween(char32_t c, char32_t first, char32_t last) {
  return c >= first && c <= last;
}

bool isPunctuation(char32_t c) {
  return isBetween(c, U'!', U'/') || isBetween(c, U':', U'@') || isBetween(c, U'[', U'`') ||
         isBetween(c, U'{', U'~') || isBetween(c, 0x2010, 0x2027) || isBetween(c, 0x3001, 0x3003) ||
         isBetween(c, 0x3008, 0x3011) || isBetween(c, 0x3014, 0x301F) || c == 0x30FB ||
         isBetween(c, 0xFF01, 0xFF0F) || isBetween(c, 0xFF1A, 0xFF20) || isBetween(c, 0xFF3B, 0xFF40) ||
         isBetween(c, 0xFF5B, 0xFF65) || c == 0xA1 || c == 0xBF;
}

// Returns whether the character belongs to a script that separates no words: kana and Han.
bool isUnspaced(char32_t c) {
  return isBetween(c, 0x3040, 0x30FF) || isBetween(c, 0x31F0, 0x31FF) || isBetween(c, 0x3400, 0x4DBF) ||
         isBetween(c, 0x4E00, 0x9FFF) || isBetween(c, 0xF900, 0xFAFF) || isBetween(c, 0xFF66, 0xFF9F) ||
         isBetween(c, 0x20000, 0x3FFFF) || c == 0x3005 || c == 0x3007;
}

// Marks that lengthen or modify the character before, which they cannot be separated from.
bool isModifier(char32_t c) {
  return isBetween(c, 0x3099, 0x309C) || c == 0x30FC || c == 0xFF70;
}

bool isPunctuation(std::string_view text) {
  if (text.empty()) return false;
  for (std::size_t position = 0; position < text.size();)
    if (!isPunctuation(nextCharacter(text, position))) return false;
  return true;
}

std::size_t characterCount(std::string_view text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

bool isContinuation(std::string_view text) {
  return !text.empty() && (static_cast<unsigned char>(text.front()) & 0xC0U) == 0x80U;
}

bool startsWord(std::string_view before, std::string_view token) {
  if (before.empty()) return true;
  const char32_t first = firstCharacter(token);
  // A byte-level vocabulary may split a character over tokens.
  if (isContinuation(token) || isPunctuation(first) || isModifier(first)) return false;
  const char32_t last = lastCharacter(before);
  return isUnspaced(first) || isUnspaced(last) || (isPunctuation(last) && last >= 0x80);
}

// Sets the times in proportion to the lengths of the words.
void spread(std::span<SpokenWord> words, std::int64_t startSample, std::int64_t endSample) {
  std::size_t total = 0;
  for (const auto& word : words) total += characterCount(word.text) + 1;
  std::size_t before = 0;
  const auto sampleAt = [&](std::size_t count) {
    return startSample +
           (endSample - startSample) * static_cast<std::int64_t>(count) / static_cast<std::int64_t>(total);
  };
  for (auto& word : words) {
    word.startSample = sampleAt(before);
    before += characterCount(word.text) + 1;
    word.endSample = sampleAt(before);
  }
}

}  // namespace

std::vector<SpokenWord> wordsOfTokens(std::span<const TimedToken> tokens, std::int64_t endSample) {
  std::vector<SpokenWord> words;
  bool hasSpace = true;
  bool endIsKnown = false;
  for (const auto& token : tokens) {
    std::string_view text = token.text;
    while (text.starts_with(' ')) {
      text.remove_prefix(1);
      hasSpace = true;
    }
    bool endsInSpace = false;
    while (text.ends_with(' ')) {
      text.remove_suffix(1);
      endsInSpace = true;
    }
    if (!text.empty()) {
      const auto start =
          std::min(std::max(token.startSample, words.empty() ? 0 : words.back().startSample), endSample);
      if (words.empty() || (hasSpace && !isPunctuation(text)) || startsWord(words.back().text, text)) {
        if (!words.empty() && (!endIsKnown || words.back().endSample > start))
          words.back().endSample = std::min(words.back().endSample, start);
        words.push_back({std::string(text), !words.empty() && !hasSpace, start, start});
        endIsKnown = false;
      } else {
        words.back().text += text;
        endIsKnown = isPunctuation(text) && start > words.back().startSample;
      }
      words.back().endSample = endIsKnown ? start : std::min(start + longestToken, endSample);
      hasSpace = false;
    }
    hasSpace = hasSpace || endsInSpace;
  }
  return words;
}

std::vector<SpokenWord> wordsOfText(std::string_view text, std::int64_t startSample, std::int64_t endSample) {
  return wordsOfGrowingText(text, {}, startSample, endSample);
}

std::vector<SpokenWord> wordsOfGrowingText(std::string_view text, std::span<const SpokenWord> earlier,
                                           std::int64_t startSample, std::int64_t endSample) {
  std::vector<TimedToken> tokens;
  for (std::size_t position = 0; position < text.size();) {
    const std::size_t from = position;
    nextCharacter(text, position);
    tokens.push_back({std::string(text.substr(from, position - from)), startSample});
  }
  auto words = wordsOfTokens(tokens, endSample);
  std::size_t kept = 0;
  for (; kept < words.size() && kept < earlier.size() && words[kept].text == earlier[kept].text; ++kept)
    words[kept] = earlier[kept];
  const std::span rest(words.begin() + static_cast<std::ptrdiff_t>(kept), words.end());
  // The first one may be a longer form of a word that was there.
  if (kept < earlier.size()) startSample = std::min(startSample, earlier[kept].startSample);
  spread(rest, startSample, endSample);
  return words;
}

std::vector<SpokenWord> wordsOfResult(std::string_view text, const char* const* tokens, const float* times,
                                      std::int32_t count, std::int64_t length, double timeFactor) {
  std::vector<TimedToken> timed;
  std::string joined;
  for (std::int32_t i = 0; tokens && times && i < count; ++i) {
    if (!tokens[i]) continue;
    // Written so that a time that is not a number becomes 0.
    const double sample = times[i] > 0 ? times[i] * timeFactor * speechSampleRate : 0;
    timed.push_back({tokens[i], std::min(length, static_cast<std::int64_t>(std::min(sample, 1e15)))});
    joined += tokens[i];
  }
  const auto withoutSpaces = [](std::string_view from) {
    std::string kept(from);
    std::erase(kept, ' ');
    return kept;
  };
  if (!timed.empty() && withoutSpaces(joined) == withoutSpaces(text)) return wordsOfTokens(timed, length);
  if (timed.empty()) return wordsOfText(text, 0, length);
  // The text is written otherwise than its tokens, such as "10" for "ten": spread the words over the tokens'
  // times.
  const auto first = timed.front().startSample;
  const auto last = std::min(length, timed.back().startSample + longestToken);
  return wordsOfText(text, first, last);
}

std::vector<SpokenWord> withoutNoise(std::vector<SpokenWord> words) {
  static constexpr std::array<std::pair<char32_t, char32_t>, 6> brackets{
      {{U'(', U')'}, {U'[', U']'}, {U'*', U'*'}, {0xFF08, 0xFF09}, {0x3010, 0x3011}, {0xFF3B, 0xFF3D}}};
  char32_t closing = U'\0';  // of the open bracket
  for (auto& word : words) {
    std::string kept;
    for (std::size_t position = 0; position < word.text.size();) {
      const std::size_t from = position;
      const char32_t c = nextCharacter(word.text, position);
      const auto* const opened = std::ranges::find(brackets, c, &std::pair<char32_t, char32_t>::first);
      if (closing != U'\0') {
        if (c == closing) closing = U'\0';
      } else if (opened != brackets.end()) {
        closing = opened->second;
      } else if (!isBetween(c, 0x2669, 0x266F)) {
        kept.append(word.text, from, position - from);
      }
    }
    // Punctuation that followed a bracket belongs to nothing.
    if (kept != word.text && isPunctuation(std::string_view(kept))) kept.clear();
    word.text = std::move(kept);
  }
  std::erase_if(words, [](const SpokenWord& word) { return word.text.empty(); });
  return words;
}

std::string comparable(std::string_view text) {
  std::string kept;
  for (std::size_t position = 0; position < text.size();) {
    const std::size_t from = position;
    const char32_t c = nextCharacter(text, position);
    if (isPunctuation(c) && c != U'\'') continue;
    if (isBetween(c, U'A', U'Z')) {
      kept += static_cast<char>(c - U'A' + U'a');
    } else {
      kept.append(text, from, position - from);
    }
  }
  return kept;
}

std::string joinedText(std::span<const SpokenWord> words) {
  std::string text;
  for (const auto& word : words) {
    if (!text.empty() && !word.isJoined) text += ' ';
    text += word.text;
  }
  return text;
}

RecognitionResult makeResult(std::span<const SpokenWord> words, std::int64_t audioLength, bool isFinal) {
  RecognitionResult result{joinedText(words), {}, isFinal};
  std::int64_t previous = 0;
  const auto seconds = [](std::int64_t samples) { return static_cast<double>(samples) / speechSampleRate; };
  for (const auto& word : words) {
    const auto start = std::min(std::max(word.startSample, previous), audioLength);
    const auto end = std::min(std::max(word.endSample, start), audioLength);
    result.segments.push_back({word.text, seconds(start), seconds(end - start)});
    previous = start;
  }
  return result;
}

}  // namespace palaver
