// Measures one batch of commands through the main queue, and one line through the command channel.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "bench/Load.h"
#include "core/CommandChannel.h"
#include "core/CommandHandler.h"
#include "core/JSONLineWriter.h"
#include "legacy/DictationProbe.h"
#include "legacy/LegacySpeechBackend.h"
#include "platform/MainQueue.h"
#include "platform/makePlatform.h"
#include "platform/posix/POSIXStreams.h"
#include "platform/posix/SystemClock.h"
#include "platform/posix/ThreadedMainQueue.h"

namespace palaver::bench {

namespace {

// Leaves ThreadedMainQueue::run(), which does not return.
struct Stop {};

// Sends a batch and waits for its end: two thread switches, one lock and one notification each way.
void handOverAndBack(benchmark::State& state) {
  ThreadedMainQueue* queue = nullptr;
  std::mutex lock;
  std::condition_variable changed;
  int done = 0;
  std::thread serving([&] {
    ThreadedMainQueue own;
    {
      const std::lock_guard guard(lock);
      queue = &own;
    }
    changed.notify_one();
    try {
      own.run();
    } catch (const Stop&) {
    }
  });
  std::unique_lock guard(lock);
  changed.wait(guard, [&] { return queue != nullptr; });
  for (auto _ : state) {
    const int before = done;
    queue->async([&] {
      {
        const std::lock_guard inner(lock);
        ++done;
      }
      changed.notify_one();
    });
    changed.wait(guard, [&] { return done != before; });
  }
  guard.unlock();
  queue->async([] { throw Stop(); });
  serving.join();
}
BENCHMARK(handOverAndBack)->UseRealTime();

// Drops all jobs, so that only the reader's side is measured.
class DroppingQueue final : public MainQueue {
 public:
  void async(Job) override {}
  void runSlice(double) override {}
  std::unique_ptr<Semaphore> makeSemaphore() override { return nullptr; }
  bool isCurrent() const override { return true; }

 private:
  void serve() override { throw Stop(); }
};

// Measures the reader's side of 16 lines that arrive in one read, from bytes to the queued batch. Includes
// copying them into place, as read() does.
void channelOf16Lines(benchmark::State& state) {
  const std::string lines = Load(1).lines(16);
  DroppingQueue queue;
  SystemClock clock;
  DescriptorOutput nowhere{-1};
  JSONLineWriter writer(clock, nowhere, nowhere);
  Platform& platform = makePlatform(0, nullptr);
  DictationProbe dictation(platform);
  LegacySpeechBackend backend(platform, writer, dictation);
  CommandHandler handler(platform, writer, backend);  // never called
  CommandChannel channel(queue, writer, handler);
  for (auto _ : state) {
    for (std::size_t given = 0; given < lines.size();) {
      const auto room = channel.prepare();
      const std::size_t count = std::min(room.size(), lines.size() - given);
      std::memcpy(room.data(), lines.data() + given, count);
      channel.received(count);
      given += count;
    }
  }
  state.SetItemsProcessed(16 * state.iterations());
}
BENCHMARK(channelOf16Lines);

}  // namespace

}  // namespace palaver::bench
