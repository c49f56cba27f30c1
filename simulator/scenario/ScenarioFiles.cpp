#include "simulator/scenario/ScenarioFiles.h"

#include <unistd.h>  // mkdtemp, on macOS

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

namespace palaver {

namespace {

constexpr std::string_view filesPrefix = "@files/";
constexpr std::int64_t maxPhrases = 100'000;

std::string vocabularyOf(std::int64_t count) {
  JSON phrases = JSON::array();
  for (std::int64_t i = 1; i <= count; ++i) phrases.push_back("w" + std::to_string(i));
  return phrases.dump();
}

SoundFileDescription readSound(const JSON& value, const std::string& where) {
  ObjectReader reader(value, where);
  SoundFileDescription sound;
  sound.container = reader.text("container").value_or(sound.container);
  sound.encoding = reader.text("encoding").value_or(sound.encoding);
  sound.sampleRate = static_cast<int>(reader.wholeNumber("rate").value_or(sound.sampleRate));
  sound.channels = static_cast<int>(reader.wholeNumber("channels").value_or(sound.channels));
  sound.frames = reader.wholeNumber("frames").value_or(0);
  sound.loudness = reader.number("rms").value_or(0);
  reader.finish();
  return sound;
}

ScenarioFile readFile(const std::string& name, const JSON& value, const std::string& where) {
  ObjectReader reader(value, where);
  ScenarioFile file{name, {}, std::nullopt};
  int contents = 0;
  if (const auto* const sound = reader.find("sound")) {
    file.content = readSound(*sound, reader.where("sound"));
    ++contents;
  }
  if (const auto phrases = reader.wholeNumber("phrases")) {
    if (*phrases < 0 || *phrases > maxPhrases)
      throw FileError(reader.where("phrases"), "must be from 0 to " + std::to_string(maxPhrases));
    file.content = vocabularyOf(*phrases);
    ++contents;
  }
  if (const auto text = reader.text("text")) {
    file.content = *text;
    ++contents;
  }
  if (const auto length = reader.wholeNumber("cutTo")) file.length = static_cast<std::uint64_t>(*length);
  reader.finish();
  if (contents != 1) reader.fail("must hold exactly one of sound, phrases, text");
  if (name.empty() || name.find('/') != std::string::npos) reader.fail("the name must be that of a file");
  return file;
}

}  // namespace

std::vector<ScenarioFile> readScenarioFiles(const JSON& value, const std::string& where) {
  if (!value.is_object()) throw FileError(where, "must be an object");
  std::vector<ScenarioFile> files;
  for (const auto& [name, file] : value.items()) files.push_back(readFile(name, file, where + "." + name));
  return files;
}

ScenarioDirectory::ScenarioDirectory(const std::vector<ScenarioFile>& files) {
  if (files.empty()) return;
  std::string pattern = (std::filesystem::temp_directory_path() / "palaver-XXXXXX").string();
  if (!mkdtemp(pattern.data()))
    throw std::system_error(errno, std::generic_category(), "cannot make a temporary directory");
  path_ = pattern;
  for (const auto& file : files) {
    const auto path = path_ / file.name;
    if (const auto* const sound = std::get_if<SoundFileDescription>(&file.content)) {
      writeSoundFile(path, *sound);
    } else {
      std::ofstream(path, std::ios::binary) << std::get<std::string>(file.content);
    }
    if (file.length) std::filesystem::resize_file(path, *file.length);
  }
}

ScenarioDirectory::~ScenarioDirectory() {
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

std::string ScenarioDirectory::located(const std::string& argument) const {
  if (!argument.starts_with(filesPrefix)) return argument;
  return path_ / argument.substr(filesPrefix.size());
}

}  // namespace palaver
