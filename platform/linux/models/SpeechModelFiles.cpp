#include "platform/linux/models/SpeechModelFiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <system_error>

#include "platform/linux/models/LocaleIdentifier.h"

namespace palaver {

namespace {

constexpr std::array acousticFiles{"feat.params",         "mdef",     "means", "noisedict", "sendump",
                                   "transition_matrices", "variances"};

}  // namespace

std::optional<std::string> modelDirectoryName(std::string_view localeIdentifier) {
  auto name = canonicalLocale(localeIdentifier);
  if (name) std::ranges::transform(*name, name->begin(), lowered);
  return name;
}

SpeechModelFiles::SpeechModelFiles(const std::filesystem::path& root, const std::string& directoryName)
    : acousticModel(root / directoryName / directoryName),
      dictionary(root / directoryName / ("cmudict-" + directoryName + ".dict")),
      languageModel(root / directoryName / (directoryName + ".lm.bin")) {}

std::vector<std::filesystem::path> SpeechModelFiles::all() const {
  std::vector<std::filesystem::path> files{dictionary, languageModel};
  for (const char* name : acousticFiles) files.push_back(acoustic(name));
  return files;
}

std::string SpeechModelFiles::fingerprint() const {
  std::string fingerprint;
  for (const auto& file : all()) {
    struct stat status {};
    if (stat(file.c_str(), &status) != 0) status = {};
    for (const auto number :
         {static_cast<long long>(status.st_dev), static_cast<long long>(status.st_ino),
          static_cast<long long>(status.st_size), static_cast<long long>(status.st_ctim.tv_sec),
          static_cast<long long>(status.st_ctim.tv_nsec)})
      fingerprint += std::to_string(number) + ' ';
  }
  return fingerprint;
}

bool SpeechModelFiles::areInstalled() const {
  return std::ranges::all_of(all(), [](const std::filesystem::path& file) {
    std::error_code ignored;
    return std::filesystem::exists(file, ignored);
  });
}

}  // namespace palaver
