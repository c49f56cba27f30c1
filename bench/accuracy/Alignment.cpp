#include "bench/accuracy/Alignment.h"

#include <algorithm>
#include <sstream>

namespace palaver::accuracy {

namespace {

struct RecognizedWord {
  std::string word;
  std::size_t utterance;
};

// Marks the errors from one end of an utterance up to its first correct word.
template <typename Iterator>
void markEdge(Iterator begin, Iterator end, Word::Edge edge) {
  for (auto word = begin; word != end && word->kind != Word::Kind::match; ++word)
    if (word->edge == Word::Edge::none) word->edge = edge;
}

void markEdges(std::vector<Word>& alignment) {
  for (auto begin = alignment.begin(); begin != alignment.end();) {
    const auto end = std::find_if(begin, alignment.end(),
                                  [&](const Word& word) { return word.utterance != begin->utterance; });
    markEdge(begin, end, Word::Edge::start);
    markEdge(std::make_reverse_iterator(end), std::make_reverse_iterator(begin), Word::Edge::end);
    begin = end;
  }
}

}  // namespace

double ErrorCount::rate() const {
  return words == 0 ? 0 : static_cast<double>(errors()) / static_cast<double>(words);
}

ErrorCount& ErrorCount::operator+=(const ErrorCount& other) {
  words += other.words;
  substitutions += other.substitutions;
  insertions += other.insertions;
  deletions += other.deletions;
  atStart += other.atStart;
  atEnd += other.atEnd;
  return *this;
}

std::vector<std::string> splitWords(std::string_view text) {
  std::istringstream stream{std::string(text)};
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

std::vector<Word> align(const std::vector<std::string>& said, const Utterances& understood) {
  std::vector<RecognizedWord> recognized;
  for (std::size_t utterance = 0; utterance < understood.size(); ++utterance)
    for (const auto& word : understood[utterance]) recognized.push_back({word, utterance});

  // distance[i][j]: errors between the first i words said and the first j words understood.
  std::vector distance(said.size() + 1, std::vector<std::size_t>(recognized.size() + 1));
  for (std::size_t i = 0; i <= said.size(); ++i) {
    for (std::size_t j = 0; j <= recognized.size(); ++j) {
      if (i == 0 || j == 0) {
        distance[i][j] = i + j;
        continue;
      }
      const std::size_t substitution = said[i - 1] == recognized[j - 1].word ? 0 : 1;
      distance[i][j] =
          std::min({distance[i - 1][j - 1] + substitution, distance[i - 1][j] + 1, distance[i][j - 1] + 1});
    }
  }

  std::vector<Word> alignment;
  for (std::size_t i = said.size(), j = recognized.size(); i > 0 || j > 0;) {
    Word word;
    if (j > 0) {
      word.utterance = recognized[j - 1].utterance;
    } else if (!recognized.empty()) {
      word.utterance = recognized.front().utterance;
    }
    if (i > 0 && j > 0 && said[i - 1] == recognized[j - 1].word && distance[i][j] == distance[i - 1][j - 1]) {
      word.said = word.understood = said[--i];
      --j;
    } else if (i > 0 && j > 0 && distance[i][j] == distance[i - 1][j - 1] + 1) {
      word.kind = Word::Kind::substitution;
      word.said = said[--i];
      word.understood = recognized[--j].word;
    } else if (i > 0 && distance[i][j] == distance[i - 1][j] + 1) {
      word.kind = Word::Kind::deletion;
      word.said = said[--i];
    } else {
      word.kind = Word::Kind::insertion;
      word.understood = recognized[--j].word;
    }
    alignment.push_back(word);
  }
  std::reverse(alignment.begin(), alignment.end());
  markEdges(alignment);
  return alignment;
}

ErrorCount countErrors(const std::vector<Word>& alignment) {
  ErrorCount count;
  for (const auto& word : alignment) {
    count.words += word.said.empty() ? 0U : 1U;
    count.substitutions += word.kind == Word::Kind::substitution ? 1U : 0U;
    count.insertions += word.kind == Word::Kind::insertion ? 1U : 0U;
    count.deletions += word.kind == Word::Kind::deletion ? 1U : 0U;
    count.atStart += word.edge == Word::Edge::start ? 1U : 0U;
    count.atEnd += word.edge == Word::Edge::end ? 1U : 0U;
  }
  return count;
}

std::string describe(const std::vector<Word>& alignment) {
  std::string text;
  for (std::size_t at = 0; at < alignment.size(); ++at) {
    const auto& word = alignment[at];
    if (at > 0) text += alignment[at - 1].utterance != word.utterance ? " | " : " ";
    switch (word.kind) {
      case Word::Kind::match:
        text += word.said;
        continue;
      case Word::Kind::substitution:
        text += "[" + word.said + ">" + word.understood + "]";
        break;
      case Word::Kind::insertion:
        text += "[+" + word.understood + "]";
        break;
      case Word::Kind::deletion:
        text += "[-" + word.said + "]";
        break;
    }
    if (word.edge != Word::Edge::none) text += "!";
  }
  return text;
}

}  // namespace palaver::accuracy
