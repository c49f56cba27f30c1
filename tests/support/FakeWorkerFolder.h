// Places a fake speech worker in a temporary folder and chooses what it does.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace palaver {

class FakeWorkerFolder {
 public:
  // `worker`: path of the fake worker's program.
  explicit FakeWorkerFolder(const std::filesystem::path& worker) {
    std::string pattern = (std::filesystem::temp_directory_path() / "worker-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("no temporary directory");
    path_ = pattern;
    std::filesystem::copy_file(worker, program());
    behave("never");
  }
  ~FakeWorkerFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  FakeWorkerFolder(const FakeWorkerFolder&) = delete;
  FakeWorkerFolder& operator=(const FakeWorkerFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path program() const { return path_ / "PalaverSpeechWorker"; }

  // Applies to workers that are started afterwards. See FakeWorker.cpp.
  void behave(const std::string& behaviour) const { std::ofstream(path_ / "behaviour") << behaviour << '\n'; }

 private:
  std::filesystem::path path_;
};

}  // namespace palaver
