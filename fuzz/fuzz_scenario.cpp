// Reads any bytes as a scenario file. A file that is none is refused with a text. What the host sends in a
// scenario can be read as commands. A name of a file of templates stands for that of the analyzer backend
// when it contains the word, and else for that of the legacy backend.
#include <sys/mman.h>
#include <unistd.h>

#include <exception>
#include <string>

#include "fuzz/FuzzInput.h"
#include "simulator/scenario/HostInput.h"
#include "simulator/scenario/Scenario.h"

namespace palaver {

// Contents of the files, embedded by the build.
extern const char* const legacyTemplates;
extern const char* const analyzerTemplates;

}  // namespace palaver

namespace {

using namespace palaver;

// Holds a file in memory.
class MemoryFile {
 public:
  explicit MemoryFile(std::string_view content = {}) : descriptor_(::memfd_create("scenario", MFD_CLOEXEC)) {
    require(descriptor_ >= 0, "a file cannot be created");
    write(content);
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

// Returns the path of a file of templates.
std::string templatesFor(const std::string& name) {
  static const MemoryFile legacy(legacyTemplates), analyzer(analyzerTemplates);
  return (name.find("analyzer") == std::string::npos ? legacy : analyzer).path();
}

// Reads the commands that the host sends, except those of much audio, which would only take time.
void checkCommands(const Scenario& scenario) {
  constexpr std::size_t maxBytes = 100'000;
  std::size_t bytes = 0;
  for (const auto& action : scenario.actions)
    if (const auto* const sent = std::get_if<HostBytes>(&action.what)) bytes += sent->bytes.size();
  if (bytes > maxBytes) return;
  for (const auto& command : readHostInput(scenario).commands) {
    if (!command.pcmBase64) continue;
    const auto payload = decodePayload(*command.pcmBase64);
    require(!payload.error || payload.samples.empty(), "a payload with an error has samples");
    require(command.type != "audio" || !command.isComplete() || command.sessionId,
            "a complete command lacks its session");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const MemoryFile file;
  file.write(text(data, size));
  try {
    auto content = readJSONFile(file.path());
    if (content.is_object() && content.contains("templates") && content["templates"].is_string())
      content["templates"] = templatesFor(content["templates"].get<std::string>());
    checkCommands(readScenario(content, "scenario"));
  } catch (const std::exception& error) {
    require(*error.what() != '\0', "an error without text");
  }
  return 0;
}
