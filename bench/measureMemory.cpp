#include <stdexcept>

#include "bench/Child.h"
#include "bench/Load.h"
#include "bench/measurements.h"

namespace palaver::bench {

namespace {

constexpr std::size_t stalledLines = 20'000;   // about 88 MB
constexpr std::size_t hourLines = 2 * 36'000;  // 100 ms from each of two sources
constexpr double mebibyte = 1 << 20;

Report feed(const std::string& role, int sessions, std::size_t lines) {
  Pipe input = makePipe(pipeSize);
  Pipe output = makePipe();
  Child child(roleCommand({role}), input.readEnd.get(), output.writeEnd.get());
  Child writer(roleCommand({"writer", std::to_string(sessions), std::to_string(lines)}), input.readEnd.get(),
               input.writeEnd.get());
  input = {};
  output.writeEnd.close();
  const std::string text = readAll(output.readEnd.get());
  writer.wait();
  child.wait();
  Report report = parseReport(text);
  if (report["buffers"] != static_cast<double>(lines)) throw std::runtime_error(role + " lost audio");
  return report;
}

std::string megabytes(double bytes) {
  return figure(bytes / mebibyte, 2, "MiB");
}

}  // namespace

std::vector<Row> measureMemory() {
  Report stalled = feed("path-stalled", 4, stalledLines);
  Report hour = feed("path-memory", 1, hourLines);
  const double held = stalled["stalled"] - stalled["before"];
  const double kept = stalled["after"] - stalled["before"];
  return {{"memory held per input byte, main thread stalled", megabytes(held), megabytes(stalled["input"]),
           held / stalled["input"], Target::atMost, 1.1},
          {"of that still held once it has caught up", megabytes(kept), megabytes(held), kept / held,
           Target::atMost, 0.1},
          {"resident, one session of two sources, after an hour of audio", megabytes(hour["end"]), "12 MiB",
           hour["end"] / (12 * mebibyte), Target::atMost, 1.0},
          {"resident after an hour against after two minutes", megabytes(hour["end"]),
           megabytes(hour["minutes"]), hour["end"] / hour["minutes"], Target::atMost, 1.1},
          {"highest on the way, the hour pushed through at full speed", megabytes(hour["peak"]), "", 0,
           Target::none, 0}};
}

}  // namespace palaver::bench
