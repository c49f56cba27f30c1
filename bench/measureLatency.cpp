#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "bench/Child.h"
#include "bench/Load.h"
#include "bench/Usage.h"
#include "bench/measurements.h"

namespace palaver::bench {

namespace {

constexpr double rate = 2000;         // writes a second
constexpr std::size_t writes = 3000;  // per round
constexpr std::size_t warmUp = 200;   // writes not counted
constexpr int rounds = 5;

void sleepUntil(double seconds) {
  const timespec time{.tv_sec = static_cast<time_t>(seconds),
                      .tv_nsec = static_cast<long>((seconds - std::floor(seconds)) * 1e9)};
  while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
  }
}

void writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(descriptor, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw std::system_error(errno, std::generic_category(), "write");
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

// Seconds from each write to its arrival at each stage of the reader, by stage.
using Delays = std::vector<std::vector<double>>;

// Writes the messages at an even pace to a role that prints a line of `stages` times for each.
Delays delays(const std::string& role, std::size_t stages, const std::string& opening,
              const std::vector<std::string>& messages) {
  Pipe input = makePipe(pipeSize);
  Pipe output = makePipe(pipeSize);
  Child reader(roleCommand({role}), input.readEnd.get(), output.writeEnd.get());
  input.readEnd.close();
  output.writeEnd.close();
  writeAll(input.writeEnd.get(), opening);
  std::vector<double> written;
  written.reserve(messages.size());
  const double start = monotonicSeconds() + 0.1;
  for (const auto& message : messages) {
    sleepUntil(start + static_cast<double>(written.size()) / rate);
    written.push_back(monotonicSeconds());
    writeAll(input.writeEnd.get(), message);
  }
  input.writeEnd.close();
  std::istringstream arrivals(readAll(output.readEnd.get()));
  reader.wait();
  Delays found(stages);
  double arrival;
  for (std::size_t i = 0; arrivals >> arrival; ++i) {
    const std::size_t message = i / stages;
    if (message >= warmUp && message < written.size())
      found[i % stages].push_back(arrival - written[message]);
  }
  if (found.back().size() != messages.size() - warmUp)
    throw std::runtime_error(role + " did not see every write");
  return found;
}

}  // namespace

std::vector<Row> measureLatency() {
  std::signal(SIGPIPE, SIG_IGN);  // a closed reader shows as an error of write
  const Load load(1);
  std::vector<std::string> messages;
  for (std::size_t i = 0; i < writes; ++i) messages.push_back(load.line(i));
  const std::vector<std::string> bytes(writes, "\n");

  std::vector<double> line50, two50, read50, main50, path50, path99, wake50, wake99, ratio50, ratio99;
  for (int round = 0; round < rounds; ++round) {
    const auto wakeUps = delays("wake-up", 1, "", bytes).back();
    line50.push_back(quantile(delays("wake-up", 1, "", messages).back(), 0.50));
    two50.push_back(quantile(delays("two-wake-ups", 1, "", messages).back(), 0.50));
    const auto paths = delays("path-arrivals", 3, load.opening(), messages);
    wake50.push_back(quantile(wakeUps, 0.50));
    wake99.push_back(quantile(wakeUps, 0.99));
    read50.push_back(quantile(paths[0], 0.50));
    main50.push_back(quantile(paths[1], 0.50));
    path50.push_back(quantile(paths[2], 0.50));
    path99.push_back(quantile(paths[2], 0.99));
    ratio50.push_back(path50.back() / wake50.back());
    ratio99.push_back(path99.back() / wake99.back());
  }
  const auto micros = [](double seconds) { return figure(seconds * 1e6, 1, "µs"); };
  return {{"write to recognizer, p50 at 2000 lines/s", micros(median(path50)), micros(median(wake50)),
           median(ratio50), Target::atMost, 4.0},
          {"of that until read() has returned, p50, against a wake-up by a whole line",
           micros(median(read50)), micros(median(line50)), median(read50) / median(line50), Target::none, 0},
          {"of that until the main thread runs, p50, against two wake-ups by a whole line without any work",
           micros(median(main50)), micros(median(two50)), median(main50) / median(two50), Target::none, 0},
          {"write to recognizer, p99 at 2000 lines/s", micros(median(path99)), micros(median(wake99)),
           median(ratio99), Target::none, 0}};
}

}  // namespace palaver::bench
