#include "worker/engine/RecognitionJob.h"

#include <exception>
#include <utility>

namespace palaver {

void answer(const RecognitionJob& job, std::optional<RecognitionResult> result,
            std::optional<PlatformError> error) {
  if (job.isCancelled || !job.handler) return;
  try {
    job.handler(std::move(result), std::move(error));
  } catch (...) {
    // There is no caller to report to. The thread and the other channels continue.
  }
}

void answerLast(RecognitionJob& job, std::optional<RecognitionResult> result,
                std::optional<PlatformError> error) {
  answer(job, std::move(result), std::move(error));
  job.handler = nullptr;
}

std::optional<PlatformError> failureOf(const std::function<void()>& work,
                                       const std::function<PlatformError(const char*)>& failed) {
  try {
    work();
  } catch (const PlatformError& error) {
    return error;
  } catch (const std::exception& error) {
    return failed(error.what());
  }
  return std::nullopt;
}

std::optional<std::span<const std::int16_t>> engineSamples(const PCMBuffer& buffer) {
  const AudioFormat& format = buffer.format();
  const std::int16_t* const samples = buffer.int16ChannelData();
  if (!samples || format.sampleRate != engineSampleRate || format.channelCount != 1) return std::nullopt;
  return std::span(samples, buffer.frameLength());
}

}  // namespace palaver
