// Finds the files of a model by their names.
#pragma once

#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace palaver {

// Holds the names of a folder's files. Any thread.
class ModelFolder {
 public:
  // Reads up to 1000 names. Throws UnusableModel when there are more or the folder cannot be read.
  explicit ModelFolder(std::filesystem::path directory);

  // Returns the file whose name is `stem`, perhaps with a prefix that ends in "-", perhaps with a suffix that
  // begins with "-" or ".", and one of the extensions. Prefers 8-bit weights, then the shortest name.
  std::optional<std::filesystem::path> find(std::string_view stem,
                                            std::initializer_list<std::string_view> extensions) const;

  std::optional<std::filesystem::path> findModel(std::string_view stem) const {
    return find(stem, {".onnx"});
  }

  // Returns the only ONNX file, preferring 8-bit weights, or none when there are others.
  std::optional<std::filesystem::path> onlyModel() const;

  // Whether there is an ONNX file or one of the ONNX Runtime.
  bool hasModels() const;

  const std::filesystem::path& directory() const { return directory_; }

 private:
  const std::filesystem::path directory_;
  std::vector<std::string> names_;
};

}  // namespace palaver
