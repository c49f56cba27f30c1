// Implements the "--research-transcribe-file" mode: transcribes one sound file with a vocabulary.
#pragma once

#include <asio/awaitable.hpp>
#include <span>
#include <string>

namespace palaver {

class JSONLineWriter;
struct Platform;

// Feeds a 16 kHz mono sound file, buffer by buffer in file order, through one analyzer channel with the
// vocabulary of a JSON file (an array of at most 100 strings). Then writes "research.complete". Throws
// std::exception with the text for the host: PlatformError of domain "STTResearch" (1: too many phrases, 2:
// other audio format, 3: no buffer), or the exception of reading, decoding or the channel.
asio::awaitable<void> transcribeResearchFile(std::string path, std::string vocabularyPath, Platform& platform,
                                             JSONLineWriter& writer);

// Takes as `paths` the arguments after the option: a sound file and a vocabulary file. Ends the process
// with status 0 when the file has been transcribed, 1 on failure, 2 when there are not exactly two
// paths. Main thread.
[[noreturn]] void runResearchTranscription(Platform& platform, JSONLineWriter& writer,
                                           std::span<const std::string> paths);

}  // namespace palaver
