// Writes locale identifiers in the form that the folders of models are named by.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace palaver {

// Returns the letter in lower case. Not <cctype>: identifiers are ASCII, independent of the process's locale.
constexpr char lowered(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Returns the identifier in its usual form, "ja-JP" for "ja_jp", which is the name of a model's folder. None
// when it is not of the form language or language-REGION (two or three letters, then two letters or three
// digits).
std::optional<std::string> canonicalLocale(std::string_view localeIdentifier);

}  // namespace palaver
