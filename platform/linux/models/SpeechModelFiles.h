// Locates the files of an installed speech model.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace palaver {

// Install path of Debian's packages (pocketsphinx-en-us), with one directory per locale.
inline constexpr const char* systemModelRoot = "/usr/share/pocketsphinx/model";

// Returns the directory of a locale's model: the identifier in lower case with a hyphen, "en-us" for "en-US"
// and "en_US". Returns none when the identifier is not of the form language or language-REGION (two or three
// letters, then two letters or three digits).
std::optional<std::string> modelDirectoryName(std::string_view localeIdentifier);

// Names the files of one locale's model as Debian does. Any thread.
struct SpeechModelFiles {
  SpeechModelFiles(const std::filesystem::path& root, const std::string& directoryName);

  std::filesystem::path acousticModel;  // a directory
  std::filesystem::path dictionary;
  std::filesystem::path languageModel;

  std::filesystem::path acoustic(std::string_view name) const { return acousticModel / name; }

  // Returns every file that a recognizer reads.
  std::vector<std::filesystem::path> all() const;

  // Returns a text that differs when one of the files has been replaced or changed.
  std::string fingerprint() const;

  // Returns whether all files exist. Their content is checked when they are loaded. Costs a few
  // calls of stat.
  bool areInstalled() const;
};

}  // namespace palaver
