// The recordings of human speech whose words are known.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace palaver::accuracy {

struct Recording {
  std::string name;
  std::string path;
  std::vector<std::string> words;  // what is said; empty when that is not known
  bool isDocumented = true;        // someone wrote the words down
};

// What one person says: in a meeting, one source of audio.
using Speaker = std::vector<Recording>;

// The recordings of the test data that PocketSphinx comes with, at `directory`, by speaker. Throws
// std::runtime_error when a file is missing or not as expected.
std::vector<Speaker> readRecordings(const std::filesystem::path& directory);

}  // namespace palaver::accuracy
