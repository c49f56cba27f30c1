#include "bench/accuracy/Recording.h"

#include <fstream>
#include <stdexcept>

#include "bench/accuracy/Alignment.h"

namespace palaver::accuracy {

namespace {

// Reads a file of lines "<s> some words </s> (name)", each for the recording name.wav in its directory.
Speaker readTranscription(const std::filesystem::path& path) {
  std::ifstream file(path);
  Speaker speaker;
  for (std::string line; std::getline(file, line);) {
    auto words = splitWords(line);
    if (words.empty()) continue;
    auto name = words.back();
    if (words.size() < 3 || words.front() != "<s>" || !name.starts_with('(') || !name.ends_with(')') ||
        words[words.size() - 2] != "</s>")
      throw std::runtime_error(path.string() + " has a line of another form: " + line);
    name = name.substr(1, name.size() - 2);
    words.erase(words.end() - 2, words.end());
    words.erase(words.begin());
    const auto directory = path.parent_path();
    speaker.push_back({directory.filename() / name, directory / (name + ".wav"), words});
  }
  if (speaker.empty()) throw std::runtime_error("there are no transcripts in " + path.string());
  return speaker;
}

}  // namespace

std::vector<Speaker> readRecordings(const std::filesystem::path& directory) {
  std::vector<Speaker> speakers;
  speakers.push_back(readTranscription(directory / "librivox/transcription"));
  speakers.push_back(readTranscription(directory / "cards/cards.transcription"));
  // The words are those of the finite-state grammar in the same directory (goforward.fsg).
  speakers.push_back({{"goforward", directory / "goforward.raw", splitWords("go forward ten meters")}});
  // The digits are in the file's name, with z for zero as in the list in the same directory (tidigits.lsn).
  speakers.push_back(
      {{"tidigits/dhd.2934z", directory / "tidigits/dhd.2934z.raw", splitWords("two nine three four zero")}});
  // No file gives the words of these two. In the first, every tested setting of the recognizer agrees
  // on the words.
  speakers.push_back(
      {{"something", directory / "something.raw", splitWords("go somewhere and do something"), false}});
  speakers.push_back({{"numbers", directory / "numbers.raw", {}, false}});
  for (const auto& speaker : speakers)
    for (const auto& recording : speaker)
      if (!std::filesystem::exists(recording.path)) throw std::runtime_error("there is no " + recording.path);
  return speakers;
}

}  // namespace palaver::accuracy
