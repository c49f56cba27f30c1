#include "platform/linux/models/SpeechModels.h"

#include <set>
#include <system_error>
#include <utility>

#include "platform/linux/models/LocaleIdentifier.h"
#include "platform/linux/models/SpeechModelFiles.h"

namespace palaver {

namespace {

using std::filesystem::path;

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

SpeechModels::Roots SpeechModels::usualRoots(const std::function<const char*(const char*)>& environment) {
  Roots roots;
  const char* const data = environment("XDG_DATA_HOME");
  const char* const home = environment("HOME");
  // As for every program, a path in these variables that is not absolute is ignored.
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
  const auto folder = roots_.pocketSphinxModels / *modelDirectoryName(*locale);
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
