#include "worker/makeEngine.h"

#include <string>

#include "worker/pocketsphinx/PocketSphinxRecognition.h"
#include "worker/sherpa/SherpaRecognition.h"

namespace palaver {

std::unique_ptr<SpeechRecognition> makeEngine(std::string_view name, const std::filesystem::path& modelFolder,
                                              std::string_view locale) {
  if (name == "pocketsphinx") {
    if (modelDirectoryName(locale) != modelFolder.filename())
      throw PlatformError("SpeechWorker", 0, "its name is not that of the locale " + std::string(locale));
    return std::make_unique<PocketSphinxRecognition>(modelFolder.parent_path());
  }
  if (name == "sherpa") return std::make_unique<SherpaRecognition>(modelFolder, std::string(locale));
  throw PlatformError("SpeechWorker", 0, "the engine " + std::string(name) + " is not built in");
}

}  // namespace palaver
