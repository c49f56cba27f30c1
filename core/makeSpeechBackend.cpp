#include "core/SpeechBackend.h"
#include "legacy/LegacySpeechBackend.h"

namespace palaver {

std::unique_ptr<SpeechBackend> makeSpeechBackend(Platform& platform, JSONLineWriter& writer,
                                                 DictationProbe& dictation) {
  return std::make_unique<LegacySpeechBackend>(platform, writer, dictation);
}

}  // namespace palaver
