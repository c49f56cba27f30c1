// A library of another version with the same functions, none of which may be called.
#include <stdlib.h>

#define EXPORT __attribute__((visibility("default")))

EXPORT const char* SherpaOnnxGetVersionStr(void) {
  return "0.0.1";
}

#define UNUSED(name)                   \
  EXPORT void SherpaOnnx##name(void) { \
    abort();                           \
  }
UNUSED(CreateOfflineRecognizer)
UNUSED(DestroyOfflineRecognizer)
UNUSED(CreateOfflineStream)
UNUSED(DestroyOfflineStream)
UNUSED(AcceptWaveformOffline)
UNUSED(DecodeOfflineStream)
UNUSED(GetOfflineStreamResult)
UNUSED(DestroyOfflineRecognizerResult)
UNUSED(CreateOnlineRecognizer)
UNUSED(DestroyOnlineRecognizer)
UNUSED(CreateOnlineStream)
UNUSED(CreateOnlineStreamWithHotwords)
UNUSED(DestroyOnlineStream)
UNUSED(OnlineStreamAcceptWaveform)
UNUSED(IsOnlineStreamReady)
UNUSED(DecodeOnlineStream)
UNUSED(GetOnlineStreamResult)
UNUSED(DestroyOnlineRecognizerResult)
UNUSED(OnlineStreamInputFinished)
