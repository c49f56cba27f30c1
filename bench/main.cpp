// Runs the benchmarks: `palaver_bench [throughput] [latency] [startup] [memory] [worker]` runs the named
// measurements, or all, and prints one table. Its status reports whether the benchmarks worked, not whether
// the targets were met.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <map>
#include <span>
#include <string>

#include "bench/Load.h"
#include "bench/measurements.h"
#include "bench/roles.h"

namespace palaver::bench {

namespace {

const std::vector<std::pair<std::string, std::vector<Row> (*)()>> measurements{
    {"throughput", measureThroughput},
    {"latency", measureLatency},
    {"startup", measureStartUp},
    {"memory", measureMemory},
    {"worker", measureWorker}};

int play(std::span<char*> arguments) {
  // A writer's arguments: sessions, lines and, optionally, the frames of a line.
  const auto write = [&](bool byReference) {
    const auto number = [&](std::size_t i) { return std::strtoul(arguments[i], nullptr, 10); };
    const Load load(static_cast<int>(number(3)), arguments.size() > 5 ? number(5) : usualFramesPerLine);
    return runWriter(load, number(4), byReference);
  };
  const std::map<std::string, std::function<int()>> roles{
      {"limit", runLimit},
      {"wake-up", runWakeUp},
      {"two-wake-ups", runTwoWakeUps},
      {"path", [&] { return runPath(1, arguments.data()); }},
      {"path-arrivals", [&] { return runPathArrivals(1, arguments.data()); }},
      {"path-stalled", [&] { return runStalledPath(1, arguments.data()); }},
      {"path-memory", [&] { return runPathMemory(1, arguments.data()); }},
      {"writer", [&] { return write(true); }},
      {"copying-writer", [&] { return write(false); }}};
  return roles.at(arguments[2])();
}

int measure(std::span<char*> names) {
  std::vector<Row> rows;
  for (const auto& [name, measurement] : measurements) {
    bool wanted = names.empty();
    for (const char* const given : names) wanted = wanted || name == given;
    if (!wanted) continue;
    for (auto& row : measurement()) rows.push_back(std::move(row));
  }
  if (rows.empty()) {
    std::fputs("usage: palaver_bench [throughput] [latency] [startup] [memory] [worker]\n", stderr);
    return 2;
  }
  print(rows);
  return 0;
}

}  // namespace

}  // namespace palaver::bench

int main(int argumentCount, char** arguments) {
  const std::span all(arguments, static_cast<std::size_t>(argumentCount));
  try {
    if (all.size() > 2 && std::string(all[1]) == "--as") return palaver::bench::play(all);
    return palaver::bench::measure(all.subspan(1));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "palaver_bench: %s\n", error.what());
    return 1;
  }
}
