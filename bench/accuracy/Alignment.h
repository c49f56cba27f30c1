// Counts word errors between what was said and what was understood.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace palaver::accuracy {

// Words understood, by utterance, in order.
using Utterances = std::vector<std::vector<std::string>>;

struct Word {
  enum class Kind { match, substitution, insertion, deletion };
  enum class Edge { none, start, end };

  Kind kind = Kind::match;
  std::string said;           // empty for an insertion
  std::string understood;     // empty for a deletion
  std::size_t utterance = 0;  // index of the utterance that contains it or borders on it
  Edge edge = Edge::none;     // for an error: no correct word lies between it and that edge of its utterance
};

struct ErrorCount {
  std::size_t words = 0;  // words said
  std::size_t substitutions = 0;
  std::size_t insertions = 0;
  std::size_t deletions = 0;
  std::size_t atStart = 0;  // errors at the start of an utterance
  std::size_t atEnd = 0;    // errors at the end of an utterance

  std::size_t errors() const { return substitutions + insertions + deletions; }
  double rate() const;  // errors per word said, 0 when no word was said
  ErrorCount& operator+=(const ErrorCount& other);
};

std::vector<std::string> splitWords(std::string_view text);

// Returns the alignment with the fewest errors (Levenshtein distance over words, all errors of weight 1).
std::vector<Word> align(const std::vector<std::string>& said, const Utterances& understood);

ErrorCount countErrors(const std::vector<Word>& alignment);

// Formats the alignment: "[and>the] mister [-john] [+a] dashwood", " | " between utterances. A '!' marks
// errors at an utterance's edge.
std::string describe(const std::vector<Word>& alignment);

}  // namespace palaver::accuracy
