#include "platform/linux/models/SpeechModels.h"

#include <algorithm>
#include <array>
#include <set>
#include <system_error>
#include <utility>

namespace palaver {

namespace {

using std::filesystem::path;

// Not <cctype>: identifiers are ASCII, independent of the process's locale.
constexpr bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
constexpr bool isDigit(char c) {
  return c >= '0' && c <= '9';
}
constexpr char lowered(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
constexpr char raised(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// Debian's folders are in lower case: en-us.
std::string pocketSphinxName(std::string locale) {
  std::ranges::transform(locale, locale.begin(), lowered);
  return locale;
}

bool isFolder(const path& folder) {
  std::error_code ignored;
  return std::filesystem::is_directory(folder, ignored);
}

bool isPocketSphinxModel(const path& folder) {
  std::error_code ignored;
  return std::filesystem::is_regular_file(folder / (folder.filename().string() + ".lm.bin"), ignored);
}

std::vector<std::string> namesIn(const path& root) {
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator entry(root, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
    names.push_back(entry->path().filename().string());
  return names;
}

}  // namespace

std::string_view nameOf(SpeechEngine engine) {
  return engine == SpeechEngine::sherpa ? "sherpa" : "pocketsphinx";
}

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

SpeechModels::Roots SpeechModels::usualRoots(const std::function<const char*(const char*)>& environment) {
  Roots roots;
  const char* const data = environment("XDG_DATA_HOME");
  const char* const home = environment("HOME");
  // The XDG Base Directory Specification ignores paths that are not absolute.
  if (data && path(data).is_absolute()) {
    roots.userModels = path(data) / "palaver-stt/models";
  } else if (home && path(home).is_absolute()) {
    roots.userModels = path(home) / ".local/share/palaver-stt/models";
  }
  return roots;
}

std::optional<InstalledModel> SpeechModels::find(std::string_view localeIdentifier) const {
  const auto locale = canonicalLocale(localeIdentifier);
  if (!locale) return std::nullopt;
  for (const auto& root : {roots_.userModels, roots_.systemModels})
    if (!root.empty() && isFolder(root / *locale))
      return InstalledModel{SpeechEngine::sherpa, *locale, root / *locale};
  const auto folder = roots_.pocketSphinxModels / pocketSphinxName(*locale);
  if (isPocketSphinxModel(folder)) return InstalledModel{SpeechEngine::pocketSphinx, *locale, folder};
  return std::nullopt;
}

std::vector<InstalledModel> SpeechModels::all() const {
  std::set<std::string> locales;
  for (const auto& root : {roots_.userModels, roots_.systemModels, roots_.pocketSphinxModels}) {
    if (root.empty()) continue;
    for (const auto& name : namesIn(root))
      if (auto locale = canonicalLocale(name)) locales.insert(std::move(*locale));
  }
  std::vector<InstalledModel> models;
  for (const auto& locale : locales)
    if (auto model = find(locale)) models.push_back(std::move(*model));
  return models;
}

}  // namespace palaver
