// Files that a scenario describes and the helper reads: sound files and vocabularies.
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
  std::variant<std::string, SoundFileDescription> content;  // the bytes, or a sound file
  std::optional<std::uint64_t> length;                      // bytes to cut it to
};

// Reads an object of file names. Throws FileError.
std::vector<ScenarioFile> readScenarioFiles(const JSON& value, const std::string& where);

// A new temporary directory with these files, removed in the end.
class ScenarioDirectory {
 public:
  explicit ScenarioDirectory(const std::vector<ScenarioFile>& files);
  ~ScenarioDirectory();
  ScenarioDirectory(const ScenarioDirectory&) = delete;
  ScenarioDirectory& operator=(const ScenarioDirectory&) = delete;

  // An argument of the form "@files/name" as a path in here; others unchanged.
  std::string located(const std::string& argument) const;

 private:
  std::filesystem::path path_;
};

}  // namespace palaver
