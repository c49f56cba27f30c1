#include "cli/TextLayout.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace palaver::cli {

namespace {

struct Character {
  char32_t codePoint = 0;  // U+FFFD for a byte that is not UTF-8
  std::size_t bytes = 1;
};

// Decodes the first character of a non-empty text.
Character firstCharacter(std::string_view text) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const Character malformed{0xFFFD, 1};
  if (byte(0) < 0x80) return {byte(0), 1};
  const std::size_t bytes = byte(0) >= 0xF0 ? 4 : byte(0) >= 0xE0 ? 3 : byte(0) >= 0xC2 ? 2 : 0;
  if (bytes == 0 || byte(0) > 0xF4 || text.size() < bytes) return malformed;
  char32_t codePoint = byte(0) & (0xFFU >> (bytes + 1));
  for (std::size_t at = 1; at < bytes; ++at) {
    if ((byte(at) & 0xC0) != 0x80) return malformed;
    codePoint = (codePoint << 6) | (byte(at) & 0x3FU);
  }
  return {codePoint, bytes};
}

struct Range {
  char32_t first;
  char32_t last;
};

template <std::size_t size>
bool isIn(const std::array<Range, size>& ranges, char32_t codePoint) {
  return std::any_of(ranges.begin(), ranges.end(),
                     [&](const Range& range) { return codePoint >= range.first && codePoint <= range.last; });
}

// Unicode 15 blocks of two-column characters (East Asian Width W and F), and of combining characters and
// other marks without width.
constexpr std::array<Range, 10> wide{{{0x1100, 0x115F},
                                      {0x2E80, 0x303E},
                                      {0x3041, 0xA4CF},
                                      {0xA960, 0xA97F},
                                      {0xAC00, 0xD7A3},
                                      {0xF900, 0xFAFF},
                                      {0xFE30, 0xFE6F},
                                      {0xFF01, 0xFF60},
                                      {0x1F300, 0x1FAFF},
                                      {0x20000, 0x3FFFD}}};
constexpr std::array<Range, 7> withoutWidth{{{0x0300, 0x036F},
                                             {0x200B, 0x200F},
                                             {0x202A, 0x202E},
                                             {0x2060, 0x206F},
                                             {0x3099, 0x309A},
                                             {0xFE00, 0xFE0F},
                                             {0xFEFF, 0xFEFF}}};

std::size_t columnsOf(char32_t codePoint) {
  if (isIn(withoutWidth, codePoint)) return 0;
  return isIn(wide, codePoint) ? 2 : 1;
}

bool movesCursor(char32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7F && codePoint < 0xA0) ||
         (codePoint >= 0x202A && codePoint <= 0x202E) || (codePoint >= 0x2066 && codePoint <= 0x2069);
}

}  // namespace

std::string printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const auto [codePoint, bytes] = firstCharacter(text);
    if (codePoint == '\n' || codePoint == '\t' || codePoint == 0x2028 || codePoint == 0x2029) {
      result += ' ';
    } else if (movesCursor(codePoint) || codePoint == 0xFFFD) {
      result += '?';
    } else {
      result.append(text.substr(0, bytes));
    }
    text.remove_prefix(bytes);
  }
  return result;
}

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) {
    const auto [codePoint, bytes] = firstCharacter(text);
    columns += columnsOf(codePoint);
    text.remove_prefix(bytes);
  }
  return columns;
}

std::string lastColumns(std::string_view text, std::size_t columns) {
  auto left = columnsOf(text);
  if (left <= columns) return std::string(text);
  if (columns == 0) return {};
  while (left > columns - 1) {
    const auto [codePoint, bytes] = firstCharacter(text);
    left -= columnsOf(codePoint);
    text.remove_prefix(bytes);
  }
  return "…" + std::string(text);
}

std::vector<std::string> wrap(std::string_view text, std::size_t columns) {
  std::vector<std::string> lines(1);
  std::size_t used = 0;
  while (!text.empty()) {
    auto word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(word.size() + 1, text.size()));
    const auto width = columnsOf(word);
    if (used > 0 && used + 1 + width <= columns) {
      lines.back().append(" ").append(word);
      used += 1 + width;
      continue;
    }
    if (used > 0) lines.emplace_back();
    used = 0;
    while (!word.empty()) {
      const auto [codePoint, bytes] = firstCharacter(word);
      if (used + columnsOf(codePoint) > columns) {
        lines.emplace_back();
        used = 0;
      }
      lines.back().append(word.substr(0, bytes));
      used += columnsOf(codePoint);
      word.remove_prefix(bytes);
    }
  }
  return lines;
}

std::string progressBar(double fraction, std::size_t columns) {
  const auto inside = std::max<std::size_t>(columns, 3) - 2;
  const auto share = std::isfinite(fraction) ? std::clamp(fraction, 0.0, 1.0) : 0.0;
  const auto done = static_cast<std::size_t>(std::lround(share * static_cast<double>(inside)));
  return "[" + std::string(done, '#') + std::string(inside - done, '-') + "]";
}

std::string position(double milliseconds) {
  const auto tenths = std::llround(std::max(milliseconds, 0.0) / 100);
  std::array<char, 40> text{};
  if (tenths < 600) {
    std::snprintf(text.data(), text.size(), "%lld.%lld s", tenths / 10, tenths % 10);
  } else {
    std::snprintf(text.data(), text.size(), "%lld:%02lld.%lld", tenths / 600, tenths / 10 % 60, tenths % 10);
  }
  return text.data();
}

}  // namespace palaver::cli
