// Builds a small language model from the phrases that the host expects.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace palaver {

// Splits phrases into spoken words and builds a bigram model of them.
class ContextualModel {
 public:
  // Words of one phrase beyond this number are ignored, because a phrase is a few words.
  static constexpr std::size_t maxWordsOfPhrase = 50;
  // Longer words are ignored.
  static constexpr std::size_t maxLettersOfWord = 40;

  // Takes the words that English letters can write, in lower case. Ignores everything else silently. The
  // caller must check whether a word can be pronounced: see remove().
  explicit ContextualModel(std::span<const std::string> phrases);

  bool isEmpty() const { return phrases_.empty(); }

  // Returns each word once, sorted.
  std::vector<std::string> words() const;

  // Removes these words (sorted).
  void remove(std::span<const std::string> words);

  // Returns the model in the ARPA format.
  std::string arpa() const;

 private:
  std::vector<std::vector<std::string>> phrases_;  // none is empty
};

}  // namespace palaver
