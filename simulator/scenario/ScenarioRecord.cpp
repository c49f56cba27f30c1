#include "simulator/scenario/ScenarioRecord.h"

#include <algorithm>
#include <charconv>

#include "simulator/scenario/AnalysisSteps.h"
#include "simulator/scenario/EventPattern.h"

namespace palaver {

namespace {

constexpr std::size_t linesBefore = 3;  // shown before a difference
constexpr std::size_t linesAfter = 4;   // from the difference on

std::string shown(double number) {
  char digits[32];
  return {digits, std::to_chars(digits, digits + sizeof digits, number).ptr};
}

std::string shown(const char* mark, double time, const std::string& text) {
  std::string at = shown(time);
  if (at.size() < 7) at.insert(0, 7 - at.size(), ' ');
  return std::string("    ") + mark + " " + at + "  " + text + "\n";
}

std::string textOf(const ExpectedLine& line) {
  return line.event.is_null() ? line.text : line.event.dump();
}

// Returns whether the keys of all nested objects are in ascending order.
bool isSorted(const nlohmann::ordered_json& value) {
  if (!value.is_structured()) return true;
  std::string last;
  for (const auto& [key, member] : value.items()) {
    if (value.is_object() && !last.empty() && key <= last) return false;
    last = key;
    if (!isSorted(member)) return false;
  }
  return true;
}

// Returns why a line is not a valid event, or none.
std::optional<std::string> malformation(const std::string& line) {
  const auto value = nlohmann::ordered_json::parse(line, nullptr, false);
  if (!value.is_object()) return "the line is not a JSON object";
  if (!isSorted(value)) return "the keys are not sorted";
  bool inString = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '"') inString = !inString;
    if (inString && line[i] == '\\') ++i;
    if (!inString && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r'))
      return "the line holds white space";
  }
  return std::nullopt;
}

std::optional<std::string> difference(const ExpectedLine& expected, const ScenarioRecord::Line& actual,
                                      Variables& variables) {
  if (expected.time != actual.time)
    return "it came at " + shown(actual.time) + " ms instead of " + shown(expected.time) + " ms";
  if (expected.event.is_null())
    return expected.text == actual.text ? std::nullopt : std::optional("it differs");
  if (auto bad = malformation(actual.text)) return bad;
  return palaver::difference(expected.event, JSON::parse(actual.text), variables);
}

// Returns the first difference between the expected and the written lines with surrounding lines, or none.
std::optional<std::string> compareLines(const char* stream, const std::vector<ExpectedLine>& expected,
                                        const ScenarioRecord::Stream& output, Variables& variables) {
  const auto& actual = output.lines;
  std::size_t line = 0;
  std::optional<std::string> why;
  for (; line < std::max(expected.size(), actual.size()); ++line) {
    if (line == expected.size()) {
      why = "it was not expected";
    } else if (line == actual.size()) {
      why = "it never came";
    } else {
      why = difference(expected[line], actual[line], variables);
    }
    if (why) break;
  }
  if (!why && !output.rest.empty()) why = "it lacks its line feed: " + output.rest;
  if (!why) return std::nullopt;

  std::string report = std::string("  ") + stream + ", line " + std::to_string(line + 1) + ": " + *why + "\n";
  for (std::size_t i = line - std::min(line, linesBefore); i < line; ++i)
    report += shown(" ", actual[i].time, actual[i].text);
  for (std::size_t i = line; i < std::min(expected.size(), line + linesAfter); ++i)
    report += shown("-", expected[i].time, textOf(expected[i]));
  for (std::size_t i = line; i < std::min(actual.size(), line + linesAfter); ++i)
    report += shown("+", actual[i].time, actual[i].text);
  return report;
}

JSON toJSON(const RecordedRequest& request) {
  const auto orNull = [](const std::optional<double>& time) { return time ? JSON(*time) : JSON(nullptr); };
  JSON value{{"locale", request.locale},
             {"shouldReportPartialResults", request.options.shouldReportPartialResults},
             {"requiresOnDeviceRecognition", request.options.requiresOnDeviceRecognition},
             {"taskHint", static_cast<long>(request.options.taskHint)},
             {"contextualStrings", request.options.contextualStrings},
             {"madeAt", request.madeAt},
             {"endAudioAt", orNull(request.endAudioAt)},
             {"cancelledAt", orNull(request.cancelledAt)},
             {"buffers", request.buffers.size()},
             {"droppedBuffers", request.droppedBuffers},
             {"firstSamples", JSON::array()},
             {"loudness", JSON::array()}};
  std::uint64_t frames = 0;
  for (const auto& buffer : request.buffers) {
    frames += buffer.frames;
    value["firstSamples"].push_back(buffer.firstSample);
    value["loudness"].push_back(buffer.loudness);
  }
  value["frames"] = frames;
  return value;
}

// Compares patterns with what requests, probes or analyzers received. Only keys that a pattern names are
// compared.
std::optional<std::string> compareReceived(const char* kind, const std::vector<JSON>& expected,
                                           const JSON& actual, Variables& variables) {
  std::string report;
  if (expected.size() != actual.size())
    report += std::string("  ") + kind + "s: " + std::to_string(actual.size()) + " were made instead of " +
              std::to_string(expected.size()) + "\n";
  for (std::size_t i = 0; i < std::min(expected.size(), actual.size()); ++i) {
    JSON value = actual[i];
    for (const auto& [key, unused] : actual[i].items())
      if (!expected[i].contains(key)) value.erase(key);
    if (const auto why = palaver::difference(expected[i], value, variables))
      report += std::string("  ") + kind + " " + std::to_string(i + 1) + ": " + *why + "\n";
  }
  if (report.empty()) return std::nullopt;
  return report;
}

std::string nameOf(const std::optional<int>& status) {
  return status ? "exits with status " + std::to_string(*status) : "still runs";
}

}  // namespace

JSON receivedBy(const SimulatedSpeechRecognition& recognition, const SimulatedSpeechAnalysis& analysis) {
  const auto listOf = [](const auto& records) {
    JSON list = JSON::array();
    for (const auto& record : records) list.push_back(toJSON(record));
    return list;
  };
  return {{"requests", listOf(recognition.requests())},
          {"probes", listOf(recognition.probes())},
          {"analyzers", listOf(analysis.analyses())}};
}

std::optional<std::string> compare(const Scenario& scenario, const ScenarioRecord& record) {
  std::string report;
  const auto add = [&report](const std::optional<std::string>& part) { report += part.value_or(""); };
  for (const auto& complaint : record.complaints) report += "  " + complaint + "\n";
  Variables variables;
  add(compareLines("standard output", scenario.output, record.output, variables));
  add(compareLines("standard error", scenario.errorOutput, record.errorOutput, variables));
  const auto addReceived = [&](const char* kind, const std::optional<std::vector<JSON>>& expected) {
    if (!expected) return;
    const auto lists = record.received.find(std::string(kind) + "s");
    if (lists == record.received.end())
      report += std::string("  ") + kind + "s: nothing is known of them\n";
    else
      add(compareReceived(kind, *expected, *lists, variables));
  };
  addReceived("request", scenario.requests);
  addReceived("probe", scenario.probes);
  addReceived("analyzer", scenario.analyzers);
  if (record.exitStatus != scenario.exitStatus)
    report += "  the helper " + nameOf(record.exitStatus) +
              ", but was expected otherwise: " + nameOf(scenario.exitStatus) + "\n";
  if (report.empty()) return std::nullopt;
  return report;
}

}  // namespace palaver
