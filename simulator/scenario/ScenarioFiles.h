// Creates the files that a scenario describes and the helper reads: sound files and vocabularies.
#pragma once

#include <filesystem>
#include <string>
#include <variant>
#include <vector>

#include "simulator/scenario/ObjectReader.h"
#include "simulator/scenario/SoundFile.h"

namespace palaver {

struct ScenarioFile {
  std::string name;
  std::variant<std::string, SoundFileDescription> content;  // raw bytes, or a sound file
  std::optional<std::uint64_t> length;                      // truncates to this many bytes
};

// Reads an object that maps file names to descriptions. Throws FileError.
std::vector<ScenarioFile> readScenarioFiles(const JSON& value, const std::string& where);

// Writes the files to a new temporary directory and removes it on destruction.
class ScenarioDirectory {
 public:
  explicit ScenarioDirectory(const std::vector<ScenarioFile>& files);
  ~ScenarioDirectory();
  ScenarioDirectory(const ScenarioDirectory&) = delete;
  ScenarioDirectory& operator=(const ScenarioDirectory&) = delete;

  // Resolves an argument "@files/name" to a path in the directory. Other arguments are returned unchanged.
  std::string located(const std::string& argument) const;

 private:
  std::filesystem::path path_;
};

}  // namespace palaver
