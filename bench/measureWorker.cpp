#include <sys/resource.h>
#include <time.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "bench/Usage.h"
#include "bench/measurements.h"
#include "bench/worker/TimingEngine.h"
#include "platform/linux/SpeechWorker.h"
#include "platform/linux/WorkerRecognizer.h"
#include "platform/posix/ThreadedMainQueue.h"

namespace palaver::bench {

namespace {

constexpr std::size_t channels = 10;
constexpr double rate = 1000;  // buffers a second in all channels together: ten times real time
constexpr std::size_t buffers = 4000;
constexpr std::size_t warmUp = 500;  // buffers not counted
constexpr std::uint32_t framesPerBuffer = 1600;
constexpr int rounds = 5;

struct Figures {
  std::vector<double> there;  // seconds from append() to the engine's thread
  std::vector<double> back;   // seconds from append() to the result handler
  double processor = 0;       // seconds a buffer, helper and worker together
};

double childProcessorSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_CHILDREN, &usage);
  const auto seconds = [](timeval time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void sleepUntil(double seconds) {
  const timespec time{.tv_sec = static_cast<time_t>(seconds),
                      .tv_nsec = static_cast<long>((seconds - std::floor(seconds)) * 1e9)};
  while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
  }
}

// Records what one channel's handler gets.
struct Channel {
  std::unique_ptr<SpeechRecognizer> recognizer;
  std::shared_ptr<RecognitionRequest> request;
  std::unique_ptr<RecognitionTask> task;
  std::vector<double> sent;

  std::mutex lock;
  std::condition_variable ended;
  std::vector<double> arrived, answered;
  bool hasEnded = false;
};

// Streams buffers through recognizers at an even pace.
Figures stream(const std::function<std::unique_ptr<SpeechRecognizer>()>& makeRecognizer) {
  std::vector<std::unique_ptr<Channel>> all;
  for (std::size_t i = 0; i < channels; ++i) {
    auto& channel = *all.emplace_back(std::make_unique<Channel>());
    channel.recognizer = makeRecognizer();
    channel.request = channel.recognizer->makeRequest({});
    channel.task = channel.recognizer->recognitionTask(channel.request, [&channel](auto result, auto error) {
      const std::lock_guard guard(channel.lock);
      if (result) {
        channel.answered.push_back(monotonicSeconds());
        channel.arrived.push_back(std::strtod(result->formattedString.c_str(), nullptr));
      }
      channel.hasEnded = channel.hasEnded || error;
      channel.ended.notify_all();
    });
  }
  const AudioFormat format{CommonFormat::int16, 16000, 1, true};
  const double start = monotonicSeconds() + 0.5;
  for (std::size_t i = 0; i < buffers; ++i) {
    auto buffer = std::make_shared<PCMBuffer>(format, framesPerBuffer);
    buffer->setFrameLength(framesPerBuffer);
    sleepUntil(start + static_cast<double>(i) / rate);
    auto& channel = *all[i % channels];
    channel.sent.push_back(monotonicSeconds());
    channel.request->append(std::move(buffer));
  }
  Figures figures;
  for (const auto& channel : all) {
    channel->request->endAudio();
    std::unique_lock guard(channel->lock);
    channel->ended.wait(guard, [&] { return channel->hasEnded; });
    if (channel->arrived.size() != channel->sent.size()) throw std::runtime_error("a buffer was lost");
    for (std::size_t i = warmUp / channels; i < channel->sent.size(); ++i) {
      figures.there.push_back(channel->arrived[i] - channel->sent[i]);
      figures.back.push_back(channel->answered[i] - channel->sent[i]);
    }
  }
  return figures;
}

Figures throughThread() {
  const double before = processorSeconds();
  TimingEngine engine;
  auto figures = stream([&] { return engine.makeRecognizer("en-us"); });
  figures.processor = (processorSeconds() - before) / static_cast<double>(buffers);
  return figures;
}

Figures throughWorker(ThreadedMainQueue& mainQueue) {
  const double before = processorSeconds() + childProcessorSeconds();
  Figures figures;
  {
    const auto worker = std::make_shared<SpeechWorker>(
        WorkerModel{"timing", "/", "en-us"},
        WorkerSettings{.program = [] { return std::filesystem::path(PALAVER_BENCH_WORKER); }});
    worker->prepare();
    figures =
        stream([&] { return std::make_unique<WorkerRecognizer>(worker, mainQueue, [] { return true; }); });
  }  // the worker has ended, so that its time is known
  figures.processor = (processorSeconds() + childProcessorSeconds() - before) / static_cast<double>(buffers);
  return figures;
}

}  // namespace

std::vector<Row> measureWorker() {
  ThreadedMainQueue mainQueue;
  std::vector<double> worker50, worker99, thread50, thread99, back50, threadBack50, used, threadUsed;
  for (int round = 0; round < rounds; ++round) {
    const auto thread = throughThread();
    const auto worker = throughWorker(mainQueue);
    thread50.push_back(quantile(thread.there, 0.50));
    thread99.push_back(quantile(thread.there, 0.99));
    worker50.push_back(quantile(worker.there, 0.50));
    worker99.push_back(quantile(worker.there, 0.99));
    back50.push_back(quantile(worker.back, 0.50));
    threadBack50.push_back(quantile(thread.back, 0.50));
    used.push_back(worker.processor);
    threadUsed.push_back(thread.processor);
  }
  const auto row = [](const std::string& what, const std::vector<double>& worker,
                      const std::vector<double>& thread) {
    const auto micros = [](double seconds) { return figure(seconds * 1e6, 1, "µs"); };
    return Row{what, micros(median(worker)), micros(median(thread)), median(worker) / median(thread)};
  };
  return {row("audio to the engine in a worker, p50 of ten channels", worker50, thread50),
          row("audio to the engine in a worker, p99 of ten channels", worker99, thread99),
          row("audio to the engine and a result back, p50", back50, threadBack50),
          row("processor time a buffer of 100 ms, both processes", used, threadUsed)};
}

}  // namespace palaver::bench
