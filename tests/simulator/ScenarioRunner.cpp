#include "tests/simulator/ScenarioRunner.h"

#include <algorithm>
#include <charconv>

#include "core/Helper.h"
#include "tests/simulator/AnalysisSteps.h"
#include "tests/simulator/EventPattern.h"

namespace palaver {

namespace {

constexpr std::size_t linesBefore = 3;  // shown before a difference
constexpr std::size_t linesAfter = 4;   // shown from it on

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

// Whether the keys of all objects in the value are in ascending order.
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

// What makes a line unfit as an event on the wire, or none.
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

std::optional<std::string> difference(const ExpectedLine& expected, const RecordingOutput::Line& actual,
                                      Variables& variables) {
  if (expected.time != actual.time)
    return "it came at " + shown(actual.time) + " ms instead of " + shown(expected.time) + " ms";
  if (expected.event.is_null())
    return expected.text == actual.text ? std::nullopt : std::optional("it differs");
  if (auto bad = malformation(actual.text)) return bad;
  return palaver::difference(expected.event, JSON::parse(actual.text), variables);
}

// The first difference between two lists of lines, with some lines around it, or none.
std::optional<std::string> compareLines(const char* stream, const std::vector<ExpectedLine>& expected,
                                        const RecordingOutput& output, Variables& variables) {
  const auto& actual = output.lines();
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
  if (!why && !output.rest().empty()) why = "it lacks its line feed: " + output.rest();
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

std::optional<std::string> compareRequests(const char* kind, const std::vector<JSON>& expected,
                                           const std::vector<RecordedRequest>& actual, Variables& variables) {
  std::string report;
  if (expected.size() != actual.size())
    report += std::string("  ") + kind + ": " + std::to_string(actual.size()) + " were made instead of " +
              std::to_string(expected.size()) + "\n";
  for (std::size_t i = 0; i < std::min(expected.size(), actual.size()); ++i) {
    const JSON all = toJSON(actual[i]);
    JSON value = all;
    for (const auto& [key, unused] : all.items())
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

std::optional<std::string> playOnce(const Scenario& scenario, const std::optional<std::uint64_t>& seed,
                                    const ScenarioProgram& program) {
  SimulatedSettings settings = scenario.settings;
  settings.seed = seed;
  const ScenarioDirectory directory(scenario.files);
  for (auto& argument : settings.arguments) argument = directory.located(argument);
  SimulatedPlatform platform(std::move(settings));
  apply(scenario.state, platform);
  Stage stage{platform, scenario.state, {}};
  for (const auto& action : scenario.actions)
    platform.scheduler.schedule(action.time, Timeline::Context::background, &scenario,
                                [&] { action.perform(stage); });
  const auto status = platform.run([&](Platform& parts) { program(platform, parts); }, scenario.until);

  std::string report;
  const auto add = [&report](const std::optional<std::string>& part) { report += part.value_or(""); };
  for (const auto& complaint : stage.complaints) report += "  " + complaint + "\n";
  Variables variables;
  add(compareLines("standard output", scenario.output, platform.standardOutput, variables));
  add(compareLines("standard error", scenario.errorOutput, platform.standardError, variables));
  if (scenario.requests)
    add(compareRequests("request", *scenario.requests, platform.speechRecognition.requests(), variables));
  if (scenario.probes)
    add(compareRequests("probe", *scenario.probes, platform.speechRecognition.probes(), variables));
  if (scenario.analyzers)
    add(compareAnalyzers(*scenario.analyzers, platform.speechAnalysis.analyses(), variables));
  if (status != scenario.exitStatus)
    report += "  the helper " + nameOf(status) +
              ", but was expected otherwise: " + nameOf(scenario.exitStatus) + "\n";
  if (report.empty()) return std::nullopt;
  if (seed) report.insert(0, "  with seed " + std::to_string(*seed) + ":\n");
  return report;
}

}  // namespace

std::optional<std::string> play(const Scenario& scenario) {
  return play(scenario, [](SimulatedPlatform&, Platform& platform) { runHelper(platform); });
}

std::optional<std::string> play(const Scenario& scenario, const ScenarioProgram& program) {
  for (const auto& seed : scenario.seeds)
    if (auto report = playOnce(scenario, seed, program)) return report;
  return std::nullopt;
}

}  // namespace palaver
