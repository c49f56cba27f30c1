#include "platform/linux/SpeechModelFiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <system_error>

namespace palaver {

namespace {

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

constexpr std::array acousticFiles{"feat.params",         "mdef",     "means", "noisedict", "sendump",
                                   "transition_matrices", "variances"};

}  // namespace

std::optional<std::string> modelDirectoryName(std::string_view localeIdentifier) {
  const std::size_t separator = localeIdentifier.find_first_of("-_");
  const std::string_view language = localeIdentifier.substr(0, separator);
  if (language.size() < 2 || language.size() > 3 || !std::ranges::all_of(language, isLetter))
    return std::nullopt;
  std::string name;
  std::ranges::transform(language, std::back_inserter(name), lowered);
  if (separator == std::string_view::npos) return name;

  const std::string_view region = localeIdentifier.substr(separator + 1);
  const bool isAlphabetic = region.size() == 2 && std::ranges::all_of(region, isLetter);
  const bool isNumeric = region.size() == 3 && std::ranges::all_of(region, isDigit);
  if (!isAlphabetic && !isNumeric) return std::nullopt;
  name += '-';
  std::ranges::transform(region, std::back_inserter(name), lowered);
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
