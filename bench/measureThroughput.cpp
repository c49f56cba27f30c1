#include <unistd.h>

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
Report read(const std::vector<std::string>& reader, const char* countName, std::size_t expected) {
  Pipe input = makePipe(pipeSize);
  Pipe output = makePipe();
  Child child(reader, input.readEnd.number(), output.writeEnd.number());
  Child writer(roleCommand({"writer", std::to_string(sessions), std::to_string(lines)}),
               input.readEnd.number(), input.writeEnd.number());
  input = {};
  output.writeEnd.close();
  const std::string text = readAll(output.readEnd.number());
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

}  // namespace

std::vector<Row> measureThroughput() {
  std::vector<double> pathTime, limitTime, timeRatio, pathProcessor, limitProcessor, processorRatio;
  for (int round = 0; round < rounds; ++round) {
    Report limit = read(roleCommand({"limit"}), "lines", lines + sessions);
    Report path = read(roleCommand({"path"}), "buffers", lines);
    limitTime.push_back(limit["seconds"]);
    pathTime.push_back(path["seconds"]);
    timeRatio.push_back(limit["seconds"] / path["seconds"]);
    limitProcessor.push_back(limit["processor"]);
    pathProcessor.push_back(path["processor"]);
    processorRatio.push_back(path["processor"] / limit["processor"]);
  }
  const auto perLine = [](double seconds) {
    return figure(seconds / static_cast<double>(lines) * 1e6, 2, "µs/line");
  };
  std::vector<Row> rows{{"whole path against reading only", linesPerSecond(median(pathTime)),
                         linesPerSecond(median(limitTime)), median(timeRatio), Target::atLeast, 0.60},
                        {"processor time against reading only", perLine(median(pathProcessor)),
                         perLine(median(limitProcessor)), median(processorRatio), Target::atMost, 2.0}};

  const std::string node = PALAVER_NODE;
  if (node.empty()) {
    rows.push_back(
        {"lines a second against a Node script", "no Node on this machine", "", 0, Target::none, 0});
    return rows;
  }
  std::vector<double> again, nodeTime, nodeRatio;
  for (int round = 0; round < nodeRounds; ++round) {
    Report script = read({node, PALAVER_NODE_SCRIPT}, "lines", lines);
    Report path = read(roleCommand({"path"}), "buffers", lines);
    nodeTime.push_back(script["seconds"]);
    again.push_back(path["seconds"]);
    nodeRatio.push_back(script["seconds"] / path["seconds"]);
  }
  rows.push_back({"lines a second against a Node script", linesPerSecond(median(again)),
                  linesPerSecond(median(nodeTime)), median(nodeRatio), Target::atLeast, 4.0});
  return rows;
}

}  // namespace palaver::bench
