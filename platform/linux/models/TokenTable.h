// Reads tokens.txt, which numbers the tokens of a model.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>

namespace palaver {

// What is known of the tokens.
struct TokenTable {
  std::size_t count = 0;                   // lines that are not empty
  std::optional<std::size_t> blankNumber;  // of "<blk>"
  bool hasBlank = false;                   // "<blk>", "<eps>" or "<blank>"
  bool hasEnd = false;                     // "</s>"
  bool hasCharacters = false;              // characters of Chinese, Japanese or Korean
  bool hasWordPieces = false;              // pieces of words, of which U+2581 marks the first one
  bool hasUpperCase = false;               // letters from A to Z
  bool hasLowerCase = false;               // letters from a to z
  bool isBase64 = true;                    // all tokens are
};

// Reads lines of a token, a space and a number, up to 64 MiB. Takes milliseconds. Any thread. Throws
// UnusableModel with a sentence that names the file and the line.
TokenTable readTokenTable(const std::filesystem::path& file);

}  // namespace palaver
