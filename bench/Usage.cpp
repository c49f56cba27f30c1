#include "bench/Usage.h"

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace palaver::bench {

double monotonicSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

namespace {

double used(int whose) {
  rusage usage{};
  ::getrusage(whose, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace

double processorSeconds() {
  return used(RUSAGE_SELF);
}

double threadProcessorSeconds() {
  return used(RUSAGE_THREAD);
}

double residentBytes() {
  unsigned long pages = 0;
  if (std::FILE* const file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%*u %lu", &pages) != 1) pages = 0;
    std::fclose(file);
  }
  return static_cast<double>(pages) * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

void waitForInput() {
  pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
  while (::poll(&input, 1, -1) < 0 && errno == EINTR) {
  }
}

}  // namespace palaver::bench
