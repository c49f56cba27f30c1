#include "platform/linux/models/TokenTable.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>

#include "platform/linux/models/UnusableModel.h"

namespace palaver {

namespace {

constexpr std::uintmax_t maxSize = 64 << 20;  // bytes

constexpr std::string_view wordStart = "\xE2\x96\x81";  // U+2581

bool isCharacter(std::string_view token) {
  // Han, kana and Hangul take three bytes or more in UTF-8, from U+2E80.
  if (token.size() < 3) return false;
  const auto first = static_cast<unsigned char>(token[0]);
  const auto second = static_cast<unsigned char>(token[1]);
  return (first == 0xE2 && second >= 0xBA) || (first >= 0xE3 && first <= 0xED) || first == 0xEF ||
         first == 0xF0;
}

bool isBase64(std::string_view token) {
  if (token.size() % 4 != 0) return false;
  for (int i = 0; i < 2 && token.ends_with('='); ++i) token.remove_suffix(1);
  return std::ranges::all_of(token, [](char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/';
  });
}

}  // namespace

TokenTable readTokenTable(const std::filesystem::path& path) {
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  if (error || size > maxSize)
    throw UnusableModel(path.string() + " cannot be read or is larger than 64 MiB.");
  std::ifstream file(path, std::ios::binary);
  TokenTable table;
  for (std::string line; std::getline(file, line);) {
    if (line.ends_with('\r')) line.pop_back();
    if (line.empty()) continue;
    ++table.count;
    const auto space = line.find_last_of(" \t");
    const auto digits = std::string_view(line).substr(space == std::string::npos ? 0 : space + 1);
    if (digits.empty() || !std::ranges::all_of(digits, [](char c) { return c >= '0' && c <= '9'; }))
      throw UnusableModel("Line " + std::to_string(table.count) + " of " + path.string() +
                          " is not a token and a number.");
    const auto token =
        space == std::string::npos ? std::string_view() : std::string_view(line).substr(0, space);
    if (token == "<blk>") {
      std::size_t number = 0;
      std::from_chars(digits.data(), digits.data() + digits.size(), number);
      table.blankNumber = number;
    }
    table.hasBlank = table.hasBlank || token == "<blk>" || token == "<eps>" || token == "<blank>";
    table.hasEnd = table.hasEnd || token == "</s>";
    table.hasCharacters = table.hasCharacters || isCharacter(token);
    table.hasWordPieces = table.hasWordPieces || token.starts_with(wordStart);
    if (!token.starts_with('<')) {  // such as "<unk>"
      table.hasUpperCase =
          table.hasUpperCase || std::ranges::any_of(token, [](char c) { return c >= 'A' && c <= 'Z'; });
      table.hasLowerCase =
          table.hasLowerCase || std::ranges::any_of(token, [](char c) { return c >= 'a' && c <= 'z'; });
    }
    table.isBase64 = table.isBase64 && isBase64(token);
  }
  if (table.count == 0) throw UnusableModel(path.string() + " is empty or cannot be read.");
  return table;
}

}  // namespace palaver
