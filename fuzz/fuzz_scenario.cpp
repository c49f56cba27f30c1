// Reads any bytes as a scenario file. A file that is none is refused with a text.
#include <sys/mman.h>
#include <unistd.h>

#include <exception>
#include <string>

#include "fuzz/FuzzInput.h"
#include "simulator/scenario/Scenario.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace palaver;
  static const int file = ::memfd_create("scenario", MFD_CLOEXEC);
  static const std::string path = "/proc/self/fd/" + std::to_string(file);
  require(::ftruncate(file, 0) == 0 && ::pwrite(file, data, size, 0) == static_cast<ssize_t>(size),
          "the file cannot be written");
  try {
    static_cast<void>(readScenario(path));
  } catch (const std::exception& error) {
    require(*error.what() != '\0', "an error without text");
  }
  return 0;
}
