#include "worker/pocketsphinx/ContextualModel.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <string_view>
#include <utility>

namespace palaver {

namespace {

// Share of a word's probability that is reserved for words that never followed it.
constexpr double backoffMass = 0.2;

bool isSeparator(char c) {
  // Separators are ASCII characters except letters, digits and the apostrophe. Bytes of other scripts belong
  // to a word, which is then left out as a whole.
  const bool isWordCharacter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                               c == '\'' || static_cast<unsigned char>(c) >= 0x80;
  return !isWordCharacter;
}

// Returns the word in lower case, or nothing when it contains anything but English letters.
std::string spokenWord(std::string_view written) {
  while (written.starts_with('\'')) written.remove_prefix(1);
  while (written.ends_with('\'')) written.remove_suffix(1);
  if (written.size() > ContextualModel::maxLettersOfWord) return {};
  std::string word;
  for (char c : written) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (!((c >= 'a' && c <= 'z') || c == '\'')) return {};
    word += c;
  }
  return word;
}

std::vector<std::string> spokenWords(std::string_view phrase) {
  std::vector<std::string> words;
  while (words.size() < ContextualModel::maxWordsOfPhrase) {
    const auto start = std::ranges::find_if_not(phrase, isSeparator);
    const auto end = std::find_if(start, phrase.end(), isSeparator);
    if (start == end) break;
    if (auto word = spokenWord({start, end}); !word.empty()) words.push_back(std::move(word));
    phrase = {end, phrase.end()};
  }
  return words;
}

std::string line(double probability, const std::string& words, double backoff) {
  return std::to_string(std::log10(probability)) + " " + words + " " + std::to_string(std::log10(backoff)) +
         "\n";
}

}  // namespace

ContextualModel::ContextualModel(std::span<const std::string> phrases) {
  for (const auto& phrase : phrases)
    if (auto words = spokenWords(phrase); !words.empty()) phrases_.push_back(std::move(words));
}

std::vector<std::string> ContextualModel::words() const {
  std::set<std::string> words;
  for (const auto& phrase : phrases_) words.insert(phrase.begin(), phrase.end());
  return {words.begin(), words.end()};
}

void ContextualModel::remove(std::span<const std::string> words) {
  for (auto& phrase : phrases_)
    std::erase_if(phrase, [words](const auto& word) { return std::ranges::binary_search(words, word); });
  std::erase_if(phrases_, [](const auto& phrase) { return phrase.empty(); });
}

std::string ContextualModel::arpa() const {
  std::map<std::string, int> counts;
  std::map<std::string, int> followers;
  std::map<std::pair<std::string, std::string>, int> pairs;
  int total = 0;
  for (const auto& phrase : phrases_) {
    const std::string* previous = nullptr;
    const auto add = [&](const std::string& word) {
      ++counts[word];
      ++total;
      if (previous) {
        ++pairs[{*previous, word}];
        ++followers[*previous];
      }
      previous = &word;
    };
    static const std::string start = "<s>";
    static const std::string end = "</s>";
    add(start);
    for (const auto& word : phrase) add(word);
    add(end);
  }

  std::string text = "\\data\\\nngram 1=" + std::to_string(counts.size()) +
                     "\nngram 2=" + std::to_string(pairs.size()) + "\n\n\\1-grams:\n";
  for (const auto& [word, count] : counts)
    text += line(double{1} * count / total, word, followers.contains(word) ? backoffMass : 1);
  text += "\n\\2-grams:\n";
  for (const auto& [pair, count] : pairs) {
    const double probability = (1 - backoffMass) * count / followers[pair.first];
    text += std::to_string(std::log10(probability)) + " " + pair.first + " " + pair.second + "\n";
  }
  return text + "\n\\end\\\n";
}

}  // namespace palaver
