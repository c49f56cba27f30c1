#include "simulator/scenario/ScenarioRecord.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string_view>

#include "simulator/scenario/AnalysisSteps.h"
#include "simulator/scenario/EventPattern.h"
#include "simulator/scenario/Invariants.h"

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

// Matches `expected` with the lines from `first` on, in any order. Binds the variables on success only.
bool matchInAnyOrder(std::vector<ExpectedLine> expected, const std::vector<ScenarioRecord::Line>& actual,
                     std::size_t first, Variables& variables) {
  if (expected.empty()) return true;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    Variables bound = variables;
    if (difference(expected[i], actual[first], bound)) continue;
    auto others = expected;
    others.erase(others.begin() + static_cast<std::ptrdiff_t>(i));
    if (!matchInAnyOrder(std::move(others), actual, first + 1, bound)) continue;
    variables = std::move(bound);
    return true;
  }
  return false;
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
    } else if (const auto size = expected[line].groupSize; size > 1 && line + size <= actual.size()) {
      const auto begin = expected.begin() + static_cast<std::ptrdiff_t>(line);
      if (matchInAnyOrder({begin, begin + static_cast<std::ptrdiff_t>(size)}, actual, line, variables)) {
        line += size - 1;
      } else {
        why = "the " + std::to_string(size) + " lines from here on are not the expected ones in any order";
      }
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

// Compares the order of the lines of both streams, which have all come as expected. Lines of unknown order
// are not compared.
std::optional<std::string> compareOrder(const Scenario& scenario, const ScenarioRecord& record) {
  struct Step {
    std::size_t expected;
    std::size_t actual;
    bool isError;
    std::string text;
  };
  std::vector<Step> steps;
  const auto add = [&steps](const auto& expected, const auto& stream, bool isError) {
    for (std::size_t i = 0; i < expected.size(); ++i)
      steps.push_back({expected[i].step, stream.lines[i].number, isError, stream.lines[i].text});
  };
  add(scenario.output, record.output, false);
  add(scenario.errorOutput, record.errorOutput, true);
  if (std::ranges::any_of(steps, [](const Step& step) { return step.actual == 0; })) return std::nullopt;
  std::ranges::sort(steps, {}, &Step::actual);
  for (std::size_t i = 1; i < steps.size(); ++i) {
    const auto& before = steps[i - 1];
    const auto& after = steps[i];
    if (before.isError == after.isError || before.expected <= after.expected) continue;
    const auto named = [](const Step& step) {
      return std::string(step.isError ? "standard error: " : "standard output: ") + step.text + "\n";
    };
    return "  these lines came in this order instead of the other one:\n    " + named(before) + "    " +
           named(after);
  }
  return std::nullopt;
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
             {"endedAt", orNull(request.endedAt)},
             {"answersAfterEnd", request.answersAfterEnd},
             {"droppedBuffers", request.droppedBuffers},
             {"droppedFirstSamples", request.droppedFirstSamples},
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

// Compares the texts of the finals by source, and checks that every line is well-formed.
std::optional<std::string> compareFinals(const std::map<std::string, std::vector<std::string>>& expected,
                                         const ScenarioRecord::Stream& output) {
  std::map<std::string, std::vector<std::string>> actual;
  for (const auto& [source, unused] : expected) actual[source];
  for (const auto& line : output.lines) {
    if (auto bad = malformation(line.text)) return "  " + *bad + ": " + line.text + "\n";
    const auto event = JSON::parse(line.text);
    if (event.value("type", "") == "transcript.final")
      actual[event.value("source", "")].push_back(event.value("text", ""));
  }
  std::string report;
  for (const auto& [source, texts] : actual) {
    const auto wanted = expected.contains(source) ? expected.at(source) : std::vector<std::string>();
    for (std::size_t i = 0; i < std::max(wanted.size(), texts.size()); ++i) {
      if (i < wanted.size() && i < texts.size() && wanted[i] == texts[i]) continue;
      report += "  final " + std::to_string(i + 1) + " of " + source + ":\n";
      if (i < wanted.size()) report += "    - " + wanted[i] + "\n";
      if (i < texts.size()) report += "    + " + texts[i] + "\n";
    }
  }
  if (report.empty()) return std::nullopt;
  return report;
}

// Returns the value with numbers without a fraction as whole numbers, as the patterns have them.
JSON withWholeNumbers(JSON value) {
  if (value.is_structured()) {
    for (auto& member : value) member = withWholeNumbers(std::move(member));
  } else if (value.is_number_float()) {
    constexpr double limit = 9007199254740992;  // 2^53
    const auto number = value.get<double>();
    if (number == std::trunc(number) && std::abs(number) <= limit) value = static_cast<std::int64_t>(number);
  }
  return value;
}

// Replaces each number of the text within a year after `startsAt` by "@" and the ms since then.
std::string withRelativeTimes(const std::string& text, double startsAt) {
  constexpr double year = 365.0 * 24 * 60 * 60 * 1000;  // ms
  constexpr std::string_view digits = "0123456789";
  if (startsAt < year) return text;  // a time could not be told from other numbers
  std::string result;
  for (std::size_t i = 0; i < text.size();) {
    double number = 0;
    const bool isInWord = i > 0 && (std::isalnum(static_cast<unsigned char>(text[i - 1])) ||
                                    text[i - 1] == '-' || text[i - 1] == '.' || text[i - 1] == '@');
    char* end = nullptr;
    if (!isInWord && digits.find(text[i]) != std::string_view::npos) number = std::strtod(&text[i], &end);
    const auto length = end ? static_cast<std::size_t>(end - &text[i]) : 1;
    if (number >= startsAt && number < startsAt + year) {
      result += "@" + shown(number - startsAt);
    } else {
      result += text.substr(i, length);
    }
    i += length;
  }
  return result;
}

// Compares patterns with what requests, probes or analyzers received. Only keys that a pattern names are
// compared.
std::optional<std::string> compareReceived(const char* kind, const std::vector<JSON>& expected,
                                           const JSON& actual, Variables& variables) {
  std::string report;
  if (expected.size() != actual.size()) {
    report += std::string("  ") + kind + "s: " + std::to_string(actual.size()) + " were made instead of " +
              std::to_string(expected.size()) + "\n";
    for (const auto& pattern : expected) report += "    - " + pattern.dump() + "\n";
    for (const auto& made : actual) report += "    + " + withWholeNumbers(made).dump() + "\n";
  }
  for (std::size_t i = 0; i < std::min(expected.size(), actual.size()); ++i) {
    JSON value = withWholeNumbers(actual[i]);
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

std::string complaintAboutLateSteps(std::size_t count, double firstTime) {
  return "the helper exited before " + std::to_string(count) +
         " step(s) of the host or the machine; the first is at " + shown(firstTime) + " ms";
}

std::optional<std::string> compare(const Scenario& scenario, const ScenarioRecord& record) {
  if (scenario.checksInvariants) {
    const auto broken = brokenInvariant(scenario, record);
    return broken ? std::optional(describe(*broken, scenario, record)) : std::nullopt;
  }
  std::string report;
  const auto add = [&report](const std::optional<std::string>& part) { report += part.value_or(""); };
  for (const auto& complaint : record.complaints) report += "  " + complaint + "\n";
  Variables variables;
  add(scenario.finals ? compareFinals(*scenario.finals, record.output)
                      : compareLines("standard output", scenario.output, record.output, variables));
  add(compareLines("standard error", scenario.errorOutput, record.errorOutput, variables));
  if (report.empty() && !scenario.finals) add(compareOrder(scenario, record));
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
  return withRelativeTimes(report, scenario.settings.startsAt);
}

}  // namespace palaver
