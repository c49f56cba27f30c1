#include "worker/sherpa/Hotwords.h"

namespace palaver {

std::string_view hotwordUnit(const SherpaModel& model) {
  const bool hasPieces = model.hasWordPieces && !model.bpeVocabulary.empty();
  if (model.hasCharacterTokens) return hasPieces ? "cjkchar+bpe" : "cjkchar";
  return hasPieces ? "bpe" : "";
}

namespace {

char inCase(char c, LetterCase letterCase) {
  if (letterCase == LetterCase::upper && c >= 'a' && c <= 'z') return static_cast<char>(c - 'a' + 'A');
  if (letterCase == LetterCase::lower && c >= 'A' && c <= 'Z') return static_cast<char>(c - 'A' + 'a');
  return c;
}

}  // namespace

std::string hotwordsOf(const std::vector<std::string>& phrases, LetterCase letterCase) {
  constexpr std::string_view special = ":#@/";
  std::string hotwords;
  for (const auto& phrase : phrases) {
    std::string words;
    for (const char c : phrase) {
      const bool isSeparator =
          special.find(c) != std::string_view::npos || static_cast<unsigned char>(c) <= ' ';
      if (!isSeparator) {
        words += inCase(c, letterCase);
      } else if (!words.empty() && words.back() != ' ') {
        words += ' ';
      }
    }
    if (words.ends_with(' ')) words.pop_back();
    if (words.empty()) continue;
    if (!hotwords.empty()) hotwords += '/';
    hotwords += words;
  }
  return hotwords;
}

}  // namespace palaver
