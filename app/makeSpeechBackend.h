// Creates the backend that serves this system.
#pragma once

#include <memory>

namespace palaver {

class DictationProbe;
class JSONLineWriter;
class SpeechBackend;
struct Platform;

// Main thread. The arguments outlive the backend.
std::unique_ptr<SpeechBackend> makeSpeechBackend(Platform& platform, JSONLineWriter& writer,
                                                 DictationProbe& dictation);

}  // namespace palaver
