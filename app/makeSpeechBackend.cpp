#include "app/makeSpeechBackend.h"

#include "analyzer/SpeechAnalyzerBackend.h"
#include "core/BackendSelection.h"
#include "core/SpeechBackend.h"
#include "legacy/LegacySpeechBackend.h"
#include "platform/Platform.h"

namespace palaver {

std::unique_ptr<SpeechBackend> makeSpeechBackend(Platform& platform, JSONLineWriter& writer,
                                                 DictationProbe& dictation) {
  if (hasSpeechAnalyzer(platform.process)) return std::make_unique<SpeechAnalyzerBackend>(platform, writer);
  return std::make_unique<LegacySpeechBackend>(platform, writer, dictation);
}

}  // namespace palaver
