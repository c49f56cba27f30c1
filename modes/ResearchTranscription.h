// Implements the "--research-transcribe-file" mode: transcribes one sound file with a vocabulary.
#pragma once

#include <asio/awaitable.hpp>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace palaver {

class AudioBuffers;
class AudioFile;
class JSONLineWriter;
class PCMBuffer;
struct Platform;

// Takes one buffer of a recording. `capturedAt`: ms from the start of the recording to its first frame.
using RecordingConsumer = std::function<void(const std::shared_ptr<PCMBuffer>&, double capturedAt)>;

// Reads a recording to its end in buffers of at most 4000 frames (250 ms) and passes each to the consumer. A
// read without frames counts as the end. Suspends after each buffer, so that other work of the executor runs.
// Throws PlatformError "STTResearch" 3 when no buffer can be created, the file's errors and the consumer's.
asio::awaitable<void> readRecording(AudioFile& file, AudioBuffers& audioBuffers, RecordingConsumer consumer);

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
