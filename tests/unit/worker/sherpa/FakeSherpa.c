// A library of the version PALAVER_FAKE_VERSION with the functions that are needed, and not the one for
// batches. None but the version may be called.
#include <stdlib.h>

#define EXPORT __attribute__((visibility("default")))

EXPORT const char* SherpaOnnxGetVersionStr(void) {
  return PALAVER_FAKE_VERSION;
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
UNUSED(OnlineStreamSetOption)
UNUSED(OnlineStreamAcceptWaveform)
UNUSED(IsOnlineStreamReady)
UNUSED(DecodeOnlineStream)
UNUSED(GetOnlineStreamResult)
UNUSED(DestroyOnlineRecognizerResult)
UNUSED(OnlineStreamInputFinished)
