// Reads recordings of human speech whose words are known.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace palaver::accuracy {

struct Recording {
  std::string name;
  std::string path;
  std::vector<std::string> words;  // the words said; empty when unknown
  bool isDocumented = true;        // the words have been written down
};

// Recordings of one person: in a meeting, one source of audio.
using Speaker = std::vector<Recording>;

// Returns the recordings of PocketSphinx's test data in `directory`, by speaker. Throws std::runtime_error
// when a file is missing or malformed.
std::vector<Speaker> readRecordings(const std::filesystem::path& directory);

}  // namespace palaver::accuracy
