#include "platform/linux/models/LocaleIdentifier.h"

#include <algorithm>

namespace palaver {

namespace {

constexpr bool isLetter(char c) {
  return lowered(c) >= 'a' && lowered(c) <= 'z';
}
constexpr bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
constexpr char raised(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

}  // namespace

std::optional<std::string> canonicalLocale(std::string_view localeIdentifier) {
  const auto separator = localeIdentifier.find_first_of("-_");
  const auto language = localeIdentifier.substr(0, separator);
  if (language.size() < 2 || language.size() > 3 || !std::ranges::all_of(language, isLetter))
    return std::nullopt;
  std::string locale(language);
  std::ranges::transform(locale, locale.begin(), lowered);
  if (separator == std::string_view::npos) return locale;
  const auto region = localeIdentifier.substr(separator + 1);
  const bool isAlphabetic = region.size() == 2 && std::ranges::all_of(region, isLetter);
  const bool isNumeric = region.size() == 3 && std::ranges::all_of(region, isDigit);
  if (!isAlphabetic && !isNumeric) return std::nullopt;
  locale += '-';
  for (const char c : region) locale += raised(c);
  return locale;
}

}  // namespace palaver
