// Reads any bytes as a scenario file. A file that is none is refused with a text. What the host sends in a
// scenario can be read as commands. Any name of a file of templates stands for that of the legacy backend.
#include <sys/mman.h>
#include <unistd.h>

#include <exception>
#include <string>

#include "fuzz/FuzzInput.h"
#include "simulator/scenario/HostInput.h"
#include "simulator/scenario/Scenario.h"

namespace palaver {

extern const char* const legacyTemplates;  // content of the file, embedded by the build

}  // namespace palaver

namespace {

using namespace palaver;

// Holds a file in memory.
class MemoryFile {
 public:
  MemoryFile() : descriptor_(::memfd_create("scenario", MFD_CLOEXEC)) {
    require(descriptor_ >= 0, "a file cannot be created");
  }
  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }
  void write(std::string_view content) const {
    require(::ftruncate(descriptor_, 0) == 0 && ::pwrite(descriptor_, content.data(), content.size(), 0) ==
                                                    static_cast<ssize_t>(content.size()),
            "the file cannot be written");
  }

 private:
  int descriptor_;
};

std::string templatesPath() {
  static const MemoryFile file;
  file.write(legacyTemplates);
  return file.path();
}

void checkPayloads(const HostInput& input) {
  for (const auto& command : input.commands)
    if (command.pcmBase64) {
      const auto payload = decodePayload(*command.pcmBase64);
      require(!payload.error || payload.samples.empty(), "a payload with an error has samples");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const MemoryFile file;
  static const std::string templates = templatesPath();
  file.write(text(data, size));
  try {
    auto content = readJSONFile(file.path());
    if (content.is_object() && content.contains("templates") && content["templates"].is_string())
      content["templates"] = templates;
    checkPayloads(readHostInput(readScenario(content, "scenario")));
  } catch (const std::exception& error) {
    require(*error.what() != '\0', "an error without text");
  }
  return 0;
}
