// The "--research-transcribe-file" mode: transcribes one sound file with a vocabulary.
#pragma once

#include <span>
#include <string>

namespace palaver {

class JSONLineWriter;
struct Platform;

// `paths`: what follows the option, a sound file and a vocabulary file. Ends the process: status 0 when the
// file has been transcribed, 1 when that failed, 2 when there are not exactly two paths. Main thread.
[[noreturn]] void runResearchTranscription(Platform& platform, JSONLineWriter& writer,
                                           std::span<const std::string> paths);

}  // namespace palaver
