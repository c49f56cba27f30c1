// Where the files of an installed speech model are.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace palaver {

// Where Debian's packages (pocketsphinx-en-us) put models: one directory per locale.
inline constexpr const char* systemModelRoot = "/usr/share/pocketsphinx/model";

// The directory of a locale's model: the identifier in lower case with a hyphen, "en-us" for "en-US" and
// "en_US". None when the identifier is not of the form language or language-REGION (two or three letters; two
// letters or three digits).
std::optional<std::string> modelDirectoryName(std::string_view localeIdentifier);

// The files of one locale's model, named as Debian names them. Any thread.
struct SpeechModelFiles {
  SpeechModelFiles(const std::filesystem::path& root, const std::string& directoryName);

  std::filesystem::path acousticModel;  // a directory
  std::filesystem::path dictionary;
  std::filesystem::path languageModel;

  std::filesystem::path acoustic(std::string_view name) const { return acousticModel / name; }

  // Every file that a recognizer reads.
  std::vector<std::filesystem::path> all() const;

  // Differs when one of the files has been replaced or changed.
  std::string fingerprint() const;

  // Whether all files are there; what is in them is checked when they are loaded. A few calls of stat.
  bool areInstalled() const;
};

}  // namespace palaver
