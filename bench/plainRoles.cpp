// Measures the limits: the cost of reading input without processing it.
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "bench/Load.h"
#include "bench/Usage.h"
#include "bench/roles.h"

namespace palaver::bench {

int runLimit() {
  const auto bytes = std::make_unique<char[]>(pipeSize);
  waitForInput();
  const double start = monotonicSeconds();
  const double processorStart = processorSeconds();
  std::size_t lines = 0;
  ssize_t count;
  while ((count = ::read(STDIN_FILENO, bytes.get(), pipeSize)) > 0) {
    const char* at = bytes.get();
    const char* const end = at + count;
    while ((at = static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at))))) {
      ++lines;
      ++at;
    }
  }
  report("seconds", monotonicSeconds() - start);
  report("processor", processorSeconds() - processorStart);
  report("lines", static_cast<double>(lines));
  return count == 0 ? 0 : 1;
}

int runWakeUp() {
  std::vector<double> arrivals;
  std::thread reader([&arrivals] {
    std::vector<char> bytes(1 << 16);
    ssize_t count;
    while ((count = ::read(STDIN_FILENO, bytes.data(), bytes.size())) > 0) {
      const double now = monotonicSeconds();
      arrivals.insert(arrivals.end(),
                      static_cast<std::size_t>(std::count(bytes.begin(), bytes.begin() + count, '\n')), now);
    }
  });
  reader.join();
  for (const double arrival : arrivals) std::printf("%.9f\n", arrival);
  return 0;
}

int runTwoWakeUps() {
  std::mutex lock;
  std::condition_variable changed;
  std::size_t waiting = 0;
  bool ended = false;
  std::thread reader([&] {
    std::vector<char> bytes(1 << 16);
    for (;;) {
      const ssize_t count = ::read(STDIN_FILENO, bytes.data(), bytes.size());
      {
        const std::lock_guard guard(lock);
        ended = count <= 0;
        if (!ended)
          waiting += static_cast<std::size_t>(std::count(bytes.begin(), bytes.begin() + count, '\n'));
      }
      changed.notify_one();
      if (count <= 0) return;
    }
  });
  std::vector<double> arrivals;
  for (std::unique_lock guard(lock);;) {
    changed.wait(guard, [&] { return waiting > 0 || ended; });
    if (waiting == 0) break;
    arrivals.insert(arrivals.end(), std::exchange(waiting, 0), monotonicSeconds());
  }
  reader.join();
  for (const double arrival : arrivals) std::printf("%.9f\n", arrival);
  return 0;
}

}  // namespace palaver::bench
