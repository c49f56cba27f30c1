#include <unistd.h>

#include <algorithm>
#include <map>
#include <stdexcept>

#include "bench/Child.h"
#include "bench/Load.h"
#include "bench/measurements.h"

namespace palaver::bench {

namespace {

constexpr int sessions = 4;
constexpr std::size_t lines = 100'000;
constexpr int rounds = 11;
constexpr int nodeRounds = 3;

// Runs a reader on the load and returns its report.
Report read(const std::vector<std::string>& reader, const std::string& writerRole, const char* countName,
            std::size_t expected) {
  Pipe input = makePipe(pipeSize);
  Pipe output = makePipe();
  Child child(reader, input.readEnd.get(), output.writeEnd.get());
  Child writer(roleCommand({writerRole, std::to_string(sessions), std::to_string(lines)}),
               input.readEnd.get(), input.writeEnd.get());
  input = {};
  output.writeEnd.close();
  const std::string text = readAll(output.readEnd.get());
  writer.wait();
  child.wait();
  Report report = parseReport(text);
  if (report[countName] != static_cast<double>(expected))
    throw std::runtime_error(reader.back() + " did not handle every line");
  return report;
}

std::string linesPerSecond(double seconds) {
  return figure(static_cast<double>(lines) / seconds / 1000, 0, "k lines/s");
}

// Collects the figures of all rounds by name.
class Rounds {
 public:
  void add(const std::string& name, double value) { values_[name].push_back(value); }
  double last(const std::string& name) const { return values_.at(name).back(); }
  double operator[](const std::string& name) const { return median(values_.at(name)); }

 private:
  std::map<std::string, std::vector<double>> values_;
};

// `writerRole`: how the load is written into the pipe. `host` describes it in the rows. `target`: the least
// share of the limit's throughput.
std::vector<Row> compareWithReading(const std::string& writerRole, const std::string& host, double target) {
  Rounds found;
  for (int round = 0; round < rounds; ++round) {
    Report limit = read(roleCommand({"limit"}), writerRole, "lines", lines + sessions);
    Report path = read(roleCommand({"path"}), writerRole, "buffers", lines);
    found.add("limit seconds", limit["seconds"]);
    found.add("limit processor", limit["processor"]);
    for (const auto& [name, value] : path) found.add(name, value);
    found.add("time", limit["seconds"] / path["seconds"]);
    found.add("processor time", path["processor"] / limit["processor"]);
    found.add("busier", std::max(path["main"], path["reader"]));
    found.add("busier thread", limit["processor"] / found.last("busier"));
  }
  const auto perLine = [&found](const std::string& name) {
    return figure(found[name] / static_cast<double>(lines) * 1e6, 2, "µs/line");
  };
  return {{"whole path against reading only, " + host, linesPerSecond(found["seconds"]),
           linesPerSecond(found["limit seconds"]), found["time"], Target::atLeast, target},
          {"the busier thread's processor time against reading only, " + host,
           perLine("busier") + " (reader " + perLine("reader") + ", main " + perLine("main") + ")",
           perLine("limit processor"), found["busier thread"], Target::none, 0},
          {"processor time against reading only, " + host, perLine("processor"), perLine("limit processor"),
           found["processor time"], Target::atMost, 2.0}};
}

}  // namespace

std::vector<Row> measureThroughput() {
  auto rows = compareWithReading("writer", "input mapped", 0.60);
  for (auto& row : compareWithReading("copying-writer", "input written", 0.85))
    rows.push_back(std::move(row));

  const std::string node = PALAVER_NODE;
  if (node.empty()) {
    rows.push_back(
        {"lines a second against a Node script", "no Node on this machine", "", 0, Target::none, 0});
    return rows;
  }
  std::vector<double> again, nodeTime, nodeRatio;
  for (int round = 0; round < nodeRounds; ++round) {
    Report script = read({node, PALAVER_NODE_SCRIPT}, "writer", "lines", lines);
    Report path = read(roleCommand({"path"}), "writer", "buffers", lines);
    nodeTime.push_back(script["seconds"]);
    again.push_back(path["seconds"]);
    nodeRatio.push_back(script["seconds"] / path["seconds"]);
  }
  rows.push_back({"lines a second against a Node script", linesPerSecond(median(again)),
                  linesPerSecond(median(nodeTime)), median(nodeRatio), Target::atLeast, 4.0});
  return rows;
}

}  // namespace palaver::bench
