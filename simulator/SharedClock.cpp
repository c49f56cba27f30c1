#include "simulator/SharedClock.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "simulator/scenario/ScenarioFiles.h"

namespace palaver {

SharedClock::SharedClock(const std::filesystem::path& file) {
  const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) throw FileError(file.string(), "cannot be read");
  struct stat properties {};
  void* mapped = MAP_FAILED;
  if (fstat(descriptor, &properties) == 0 && properties.st_size >= static_cast<off_t>(sizeof *time_))
    mapped = mmap(nullptr, sizeof *time_, PROT_READ, MAP_SHARED, descriptor, 0);
  close(descriptor);
  if (mapped == MAP_FAILED) throw FileError(file.string(), "holds no time");
  time_ = static_cast<double*>(mapped);
}

SharedClock::~SharedClock() {
  munmap(time_, sizeof *time_);
}

}  // namespace palaver
