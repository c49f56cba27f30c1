#include "commands/ModelAssets.h"

#include "core/JSONLineWriter.h"
#include "platform/Platform.h"

namespace palaver {

void installSpeechAnalyzerAssets(Platform& platform, JSONLineWriter& writer,
                                 std::string_view /*localeIdentifier*/) {
  writer.error("SpeechAnalyzer assets require macOS 26 and the macOS 26 SDK (Xcode/Command Line Tools 26)");
  platform.process.exit(1);
}

}  // namespace palaver
