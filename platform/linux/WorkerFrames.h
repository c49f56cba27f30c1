// Encodes and decodes what the helper and its speech worker send each other over a socket.
//
//   frame      length of the payload (bytes), type, id: three 32-bit numbers; then the payload
//   id         number of a task, or of a channel for closeChannel; 0 for frames without either
//
//   helper to worker
//     startTask     channel, options. Creates the channel when it is new
//     audio         position of the first frame in the request, then 16-bit samples
//     endAudio      no payload
//     cancelTask    no payload. Answers that are under way may still arrive
//     closeChannel  no payload. The channel's tasks continue
//   worker to helper
//     ready         no payload. The model is loaded
//     failed        error. The model cannot be loaded; nothing else follows
//     answer        result, error or both. Ends the task when it holds a final result or an error
//     consumed      frames of the request's audio that the engine has taken or that were dropped
//     decoding      frames of audio that the engine begins to decode on the thread that serves all tasks.
//                   Sent once a second at most while they are few
//
// Numbers are in the machine's byte order, because both ends run on one machine. Audio is 16 kHz, mono.
// Nothing that is received is trusted: lengths are bounded by type, and every field is checked.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/PlatformError.h"
#include "platform/SpeechRecognition.h"

namespace palaver {

enum class FrameType : std::uint32_t {
  startTask = 1,
  audio = 2,
  endAudio = 3,
  cancelTask = 4,
  closeChannel = 5,
  ready = 16,
  failed = 17,
  answer = 18,
  consumed = 19,
  decoding = 20,
};

// Changes with the frames and the worker's arguments. The helper passes its own to the worker, which refuses
// another one: an update may replace the worker while a helper runs.
inline constexpr const char* workerProtocolVersion = "3";

// Sample rate of all audio frames, Hz.
inline constexpr int workerSampleRate = 16000;
// Most samples of one audio frame: one second.
inline constexpr std::uint32_t maxSamplesOfFrame = workerSampleRate;
// Most audio that an engine decodes in one step, frames.
inline constexpr std::uint64_t maxDecodedFrames = std::uint64_t{60} * workerSampleRate;
// Most bytes of an answer: a transcript of days.
inline constexpr std::size_t maxAnswerBytes = std::size_t{16} << 20;
// Most bytes of all contextual phrases of a task. Phrases beyond it are left out.
inline constexpr std::size_t maxPhraseBytes = std::size_t{1} << 20;

// A frame that no correct peer sends. The connection cannot be used any more.
class MalformedFrame : public std::exception {
 public:
  const char* what() const noexcept override { return "a frame of the speech worker is malformed"; }
};

// A view of a received frame.
struct Frame {
  FrameType type;
  std::uint32_t id;
  std::span<const std::byte> payload;
};

// Cuts received bytes into frames. Used by one thread at a time.
class FrameDecoder {
 public:
  // Returns room for the next read, at least one byte. Invalidates earlier frames. Throws std::bad_alloc.
  std::span<std::byte> prepare();
  // Takes `count` bytes that were read into the room.
  void received(std::size_t count) { end_ += count; }
  // Returns the next whole frame, or none. Throws MalformedFrame.
  std::optional<Frame> next();

 private:
  std::vector<std::byte> bytes_;
  std::size_t begin_ = 0;  // of what next() has not returned
  std::size_t end_ = 0;    // of what has been received
};

// Size of what precedes the samples of an audio frame, bytes.
inline constexpr std::size_t audioPreambleBytes = 3 * sizeof(std::uint32_t) + sizeof(std::uint64_t);
using AudioPreamble = std::array<std::byte, audioPreambleBytes>;

// A frame without payload.
std::string encodeFrame(FrameType type, std::uint32_t id = 0);
std::string encodeStart(std::uint32_t task, std::uint32_t channel, const RecognitionOptions& options);
// Precedes `samples` samples, at most maxSamplesOfFrame. `position`: frames from the request's first sample.
AudioPreamble encodeAudioPreamble(std::uint32_t task, std::uint64_t position, std::uint32_t samples);
std::string encodeFailure(const PlatformError& error);
// Replaces an answer beyond maxAnswerBytes by an error.
std::string encodeAnswer(std::uint32_t task, const std::optional<RecognitionResult>& result,
                         const std::optional<PlatformError>& error);
std::string encodeConsumed(std::uint32_t task, std::uint64_t frames);
// Reports maxDecodedFrames where there are more.
std::string encodeDecoding(std::uint64_t frames);

struct StartFrame {
  std::uint32_t channel;
  RecognitionOptions options;
};
struct AudioFrame {
  std::uint64_t position;              // frames from the request's first sample
  std::span<const std::byte> samples;  // 16-bit samples, not aligned
};
struct AnswerFrame {
  std::optional<RecognitionResult> result;
  std::optional<PlatformError> error;

  bool endsTask() const { return error || (result && result->isFinal); }
};

// The functions below decode payloads of their type. They throw MalformedFrame.
StartFrame decodeStart(std::span<const std::byte> payload);
AudioFrame decodeAudio(std::span<const std::byte> payload);
PlatformError decodeFailure(std::span<const std::byte> payload);
AnswerFrame decodeAnswer(std::span<const std::byte> payload);
std::uint64_t decodeConsumed(std::span<const std::byte> payload);
// At most maxDecodedFrames.
std::uint64_t decodeDecoding(std::span<const std::byte> payload);

}  // namespace palaver
