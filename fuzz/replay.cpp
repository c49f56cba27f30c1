// Runs a fuzz target over the files of folders, in place of libFuzzer: each file of a corpus is a test that
// any compiler builds. An input that the target rejects aborts the program, and its name is the last that is
// printed.
//
// Exit status 1: a folder cannot be read or holds no file.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& folder) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder))
    if (entry.is_regular_file()) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string content(std::istreambuf_iterator<char>(file), {});
  if (!file) throw std::runtime_error("cannot read " + path.string());
  return content;
}

void replay(const std::filesystem::path& path) {
  std::printf("%s\n", path.c_str());
  std::fflush(stdout);
  const auto content = contentOf(path);
  // Exactly as long as the input, so that the address sanitizer reports any further byte.
  const auto bytes = std::make_unique_for_overwrite<std::uint8_t[]>(content.size());
  std::copy(content.begin(), content.end(), bytes.get());
  LLVMFuzzerTestOneInput(bytes.get(), content.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s FILE|FOLDER...\n", argv[0]);
    return 1;
  }
  try {
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
      const std::filesystem::path path(argv[i]);
      const bool isFolder = std::filesystem::is_directory(path);
      const auto files = isFolder ? filesIn(path) : std::vector{path};
      if (files.empty()) throw std::runtime_error(path.string() + " holds no file");
      for (const auto& file : files) replay(file);
      count += files.size();
    }
    std::printf("%zu inputs passed\n", count);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "error: %s\n", error.what());
    return 1;
  }
  return 0;
}
