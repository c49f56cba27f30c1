#include "cli/checkModel.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/MainQueue.h"
#include "platform/linux/LinuxSpeechRecognition.h"
#include "platform/posix/ThreadSemaphore.h"

namespace palaver::cli {

namespace {

// Far more than any model needs. The speech worker reports a model that hangs long before.
constexpr auto deadline = std::chrono::minutes(10);

// Runs the jobs of the recognizer while the main thread waits for an answer.
class WaitingQueue final : public MainQueue {
 public:
  void async(Job job) override {
    const std::lock_guard guard(lock_);
    jobs_.push_back(std::move(job));
    queued_.notify_all();
  }
  void runSlice(double /*milliseconds*/) override {}
  std::unique_ptr<Semaphore> makeSemaphore() override { return std::make_unique<ThreadSemaphore>(); }
  bool isCurrent() const override { return std::this_thread::get_id() == mainThread_; }

  // Returns whether the condition, which a job makes true, held before the deadline.
  bool runUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
      std::vector<Job> taken;
      {
        std::unique_lock guard(lock_);
        if (!queued_.wait_until(guard, end, [this] { return !jobs_.empty(); })) return false;
        std::swap(taken, jobs_);
      }
      for (auto& job : taken) job();
    }
    return true;
  }

 private:
  [[noreturn]] void serve() override { std::abort(); }

  const std::thread::id mainThread_ = std::this_thread::get_id();
  std::mutex lock_;
  std::condition_variable queued_;
  std::vector<Job> jobs_;
};

struct Answer {
  bool isGiven = false;
  std::optional<RecognitionResult> result;
  std::optional<PlatformError> error;
};

std::shared_ptr<const PCMBuffer> bufferOf(std::span<const std::int16_t> samples) {
  auto buffer = std::make_shared<PCMBuffer>(AudioFormat{CommonFormat::int16, 16000, 1, true},
                                            static_cast<std::uint32_t>(samples.size()));
  std::memcpy(buffer->int16ChannelData(), samples.data(), samples.size_bytes());
  buffer->setFrameLength(static_cast<std::uint32_t>(samples.size()));
  return buffer;
}

// Returns an empty result for no speech.
RecognitionResult recognize(SpeechRecognizer& recognizer, WaitingQueue& queue,
                            std::span<const std::int16_t> samples) {
  constexpr std::size_t bufferLength = 1600;  // 100 ms
  constexpr long noSpeech = 1110;
  const auto request = recognizer.makeRequest({.shouldReportPartialResults = true,
                                               .requiresOnDeviceRecognition = true,
                                               .taskHint = TaskHint::dictation,
                                               .contextualStrings = {}});
  const auto answer = std::make_shared<Answer>();
  const auto task = recognizer.recognitionTask(request, [answer, &queue](auto result, auto error) {
    if (!error && !(result && result->isFinal)) return;
    queue.async([answer, result = std::move(result), error = std::move(error)]() mutable {
      answer->result = std::move(result);
      answer->error = std::move(error);
      answer->isGiven = true;
    });
  });
  for (; !samples.empty(); samples = samples.subspan(std::min(bufferLength, samples.size())))
    request->append(bufferOf(samples.first(std::min(bufferLength, samples.size()))));
  request->endAudio();
  if (!queue.runUntil([&] { return answer->isGiven; }))
    throw PlatformError("palaver-stt", 0, "the model did not answer within ten minutes");
  if (answer->error && answer->error->code() != noSpeech) throw PlatformError(*answer->error);
  return answer->result.value_or(RecognitionResult{});
}

// Returns the worker of the installation, or that of a development build.
std::filesystem::path workerProgram() {
  auto found = findWorkerProgram();
#ifdef PALAVER_WORKER
  std::error_code ignored;
  if (!std::filesystem::exists(found, ignored)) return PALAVER_WORKER;
#endif
  return found;
}

}  // namespace

CheckedModel checkModel(const SpeechModels& models, const std::string& locale,
                        std::span<const std::int16_t> samples) {
  // Less than the audio that may wait for a speech worker.
  constexpr std::size_t partLength = std::size_t{50} * 16000;
  static WaitingQueue queue;  // outlives the threads that post to it
  LinuxSpeechRecognition recognition(queue, models, {.program = workerProgram});
  const auto now = [] { return std::chrono::steady_clock::now(); };
  const auto seconds = [](std::chrono::duration<double> duration) { return duration.count(); };
  const auto recognizer = recognition.makeRecognizer(locale);
  if (!recognizer) throw PlatformError("palaver-stt", 0, "there is no model for " + locale);

  CheckedModel checked;
  const auto start = now();
  recognize(*recognizer, queue, {});
  const auto loaded = now();
  checked.loadSeconds = seconds(loaded - start);
  for (std::size_t from = 0; from < samples.size(); from += partLength) {
    const auto part =
        recognize(*recognizer, queue, samples.subspan(from, std::min(partLength, samples.size() - from)));
    if (!checked.result.formattedString.empty() && !part.formattedString.empty())
      checked.result.formattedString += ' ';
    checked.result.formattedString += part.formattedString;
    for (auto segment : part.segments) {
      segment.timestamp += static_cast<double>(from) / 16000;
      checked.result.segments.push_back(std::move(segment));
    }
  }
  checked.recognitionSeconds = seconds(now() - loaded);
  return checked;
}

}  // namespace palaver::cli
