// A small language model of the phrases that the host expects.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace palaver {

// The spoken words of phrases, and a bigram model of them.
class ContextualModel {
 public:
  // More words of one phrase are not used: a phrase is a few words.
  static constexpr std::size_t maxWordsOfPhrase = 50;
  // Longer words are not used.
  static constexpr std::size_t maxLettersOfWord = 40;

  // Takes the words of the phrases that English letters can write, in lower case; everything else is left out
  // silently. Whether a word can be spoken is the caller's to find out: see remove().
  explicit ContextualModel(std::span<const std::string> phrases);

  bool isEmpty() const { return phrases_.empty(); }

  // Each word once, sorted.
  std::vector<std::string> words() const;

  // Leaves out these words (sorted).
  void remove(std::span<const std::string> words);

  // The model in the ARPA format.
  std::string arpa() const;

 private:
  std::vector<std::vector<std::string>> phrases_;  // none is empty
};

}  // namespace palaver
