// Feeds recognizers with audio and records their answers.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <thread>
#include <utility>
#include <vector>

#include "platform/SpeechRecognition.h"

namespace palaver {

// Records the answers of one task in order. Any thread, unless stated otherwise.
class RecordedAnswers {
 public:
  struct Answer {
    std::optional<RecognitionResult> result;
    std::optional<PlatformError> error;

    bool isLast() const { return error || (result && result->isFinal); }
  };

  // Returns the handler to pass to recognitionTask(). This object must outlive the task.
  ResultHandler handler() {
    return [this](std::optional<RecognitionResult> result, std::optional<PlatformError> error) {
      // Only the test's own thread can be inside the test's call.
      if (std::this_thread::get_id() == testThread_ && isInCall_) wasAnsweredInsideCall_ = true;
      const std::lock_guard guard(lock_);
      answers_.push_back({std::move(result), std::move(error)});
      answered_.notify_all();  // under the lock: a resumed waiter may destroy this object
    };
  }

  // Call around the start of the task, on the test's thread.
  void enterCall() { isInCall_ = true; }
  void leaveCall() { isInCall_ = false; }
  bool wasAnsweredInsideCall() const { return wasAnsweredInsideCall_; }

  std::vector<Answer> all() const {
    const std::lock_guard guard(lock_);
    return answers_;
  }

  bool hasLast() const {
    const std::lock_guard guard(lock_);
    return !answers_.empty() && answers_.back().isLast();
  }

  // Waits for the answer that ends the task. None after the deadline.
  std::optional<Answer> waitForLast(std::chrono::seconds deadline = std::chrono::seconds(240)) const {
    std::unique_lock guard(lock_);
    const auto hasLast = [this] { return !answers_.empty() && answers_.back().isLast(); };
    if (!answered_.wait_for(guard, deadline, hasLast)) return std::nullopt;
    return answers_.back();
  }

  // Waits for at least `count` answers. False after the deadline.
  bool waitForCount(std::size_t count, std::chrono::seconds deadline = std::chrono::seconds(240)) const {
    std::unique_lock guard(lock_);
    return answered_.wait_for(guard, deadline, [&] { return answers_.size() >= count; });
  }

 private:
  mutable std::mutex lock_;
  mutable std::condition_variable answered_;
  std::vector<Answer> answers_;

  // Used on the test's thread only.
  const std::thread::id testThread_ = std::this_thread::get_id();
  bool isInCall_ = false;
  bool wasAnsweredInsideCall_ = false;
};

// Returns a buffer of 16 kHz mono 16-bit audio.
inline std::shared_ptr<const PCMBuffer> makeSpeechBuffer(std::span<const std::int16_t> samples) {
  const AudioFormat format{CommonFormat::int16, 16000, 1, true};
  auto buffer = std::make_shared<PCMBuffer>(format, static_cast<std::uint32_t>(samples.size()));
  std::copy(samples.begin(), samples.end(), buffer->int16ChannelData());
  buffer->setFrameLength(static_cast<std::uint32_t>(samples.size()));
  return buffer;
}

// Appends samples in buffers of 100 ms, like a host.
inline void appendInBuffers(RecognitionRequest& request, std::span<const std::int16_t> samples) {
  constexpr std::size_t bufferLength = 1600;
  for (; !samples.empty(); samples = samples.subspan(std::min(bufferLength, samples.size())))
    request.append(makeSpeechBuffer(samples.first(std::min(bufferLength, samples.size()))));
}

}  // namespace palaver
