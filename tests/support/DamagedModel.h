// Copies the system's English model to a temporary directory, where single files can be replaced.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/linux/models/SpeechModelFiles.h"

namespace palaver {

class DamagedModel {
 public:
  DamagedModel() {
    std::string pattern = (std::filesystem::temp_directory_path() / "model-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("no temporary directory");
    root_ = pattern;
    std::filesystem::create_directories(files().acousticModel);
    const auto originals = SpeechModelFiles(systemModelRoot, "en-us").all();
    const auto copies = files().all();
    for (std::size_t i = 0; i < copies.size(); ++i) std::filesystem::create_symlink(originals[i], copies[i]);
  }
  ~DamagedModel() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  DamagedModel(const DamagedModel&) = delete;
  DamagedModel& operator=(const DamagedModel&) = delete;

  const std::filesystem::path& root() const { return root_; }
  SpeechModelFiles files() const { return {root_, "en-us"}; }

  // The path of the file with that name.
  std::filesystem::path file(std::string_view name) const {
    for (const auto& file : files().all())
      if (file.filename() == name) return file;
    throw std::runtime_error("no such file");
  }

  static std::string read(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  void replace(const std::filesystem::path& file, std::string_view contents) const {
    std::filesystem::remove_all(file);  // removes the link, not its target
    std::ofstream(file, std::ios::binary)
        .write(contents.data(), static_cast<std::streamsize>(contents.size()));
  }

  void restore(const std::filesystem::path& file) const {
    std::filesystem::remove_all(file);
    const SpeechModelFiles originals(systemModelRoot, "en-us");
    for (const auto& original : originals.all())
      if (original.filename() == file.filename()) std::filesystem::create_symlink(original, file);
  }

 private:
  std::filesystem::path root_;
};

}  // namespace palaver
