#include "commands/ResearchTranscription.h"

#include "core/JSONLineWriter.h"
#include "platform/Platform.h"

namespace palaver {

void runResearchTranscription(Platform& platform, JSONLineWriter& writer,
                              std::span<const std::string> paths) {
  if (paths.size() != 2) {
    writer.error("Usage: --research-transcribe-file <wav-path> <vocabulary-json-path>");
    platform.process.exit(2);
  }
  writer.error(
      "Offline research probe requires macOS 26 and Swift 6.2; legacy recognition is not measured by this "
      "command");
  platform.process.exit(1);
}

}  // namespace palaver
