// Holds one recognition task of an engine, and reports its results.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/SpeechRecognition.h"

namespace palaver {

// Sample rate of the audio that every engine takes, Hz.
inline constexpr std::uint32_t engineSampleRate = 16000;

// Lives from the creation of a request to the end of its task. Once the task has been started, everything but
// `isCancelled` belongs to the engine's thread.
struct RecognitionJob {
  RecognitionOptions options;
  ResultHandler handler;                                // null when the task has ended
  std::vector<std::shared_ptr<const PCMBuffer>> audio;  // not yet taken by the engine, oldest first
  bool audioEnded = false;
  std::atomic<bool> isCancelled = false;
};

// Calls the handler unless the task was cancelled.
void answer(const RecognitionJob& job, std::optional<RecognitionResult> result,
            std::optional<PlatformError> error);

// Answers a task for the last time.
void answerLast(RecognitionJob& job, std::optional<RecognitionResult> result,
                std::optional<PlatformError> error);

// Runs the work and returns how it failed. A std::exception that is not a PlatformError becomes one through
// `failed`, which takes its text.
std::optional<PlatformError> failureOf(const std::function<void()>& work,
                                       const std::function<PlatformError(const char*)>& failed);

// Returns the buffer's samples. None unless they are mono 16-bit audio at engineSampleRate.
std::optional<std::span<const std::int16_t>> engineSamples(const PCMBuffer& buffer);

}  // namespace palaver
