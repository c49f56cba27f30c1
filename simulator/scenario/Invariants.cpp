#include "simulator/scenario/Invariants.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <map>
#include <regex>

namespace palaver {

namespace {

constexpr std::size_t shownSteps = 25;  // of the conversation before the broken invariant

const std::vector<Invariant>& allInvariants() {
  static const auto all = [] {
    auto list = conversationInvariants();
    for (const auto& invariant : audioInvariants()) list.push_back(invariant);
    for (const auto& invariant : recognitionInvariants()) list.push_back(invariant);
    return list;
  }();
  return all;
}

std::string textOf(const Invariant& invariant) {
  if (invariant.text) return invariant.text;
  return ProtocolDescription::shared().rule(invariant.id).value();
}

std::string shown(double number) {
  char digits[32];
  return {digits, std::to_chars(digits, digits + sizeof digits, number).ptr};
}

std::string withoutAudio(std::string bytes) {
  constexpr std::size_t longest = 400;
  while (!bytes.empty() && bytes.back() == '\n') bytes.pop_back();
  const auto start = bytes.find("\"pcmBase64\":\"");
  if (start != std::string::npos) {
    const auto end = bytes.find('"', start + 13);
    if (end != std::string::npos && end - start > 60)
      bytes.replace(start + 13 + 24, end - start - 13 - 24, "…");
  }
  if (bytes.size() > longest) bytes = bytes.substr(0, longest) + "…";
  return bytes;
}

// Replaces random ids, so that a conversation looks the same in every run.
std::string withoutRandomIds(const std::string& text, std::map<std::string, std::string>& names) {
  static const std::regex pattern(
      "[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"
      "|[0-9A-F]{8}(?=-[0-9]+\")");
  std::string result;
  std::size_t copied = 0;
  for (std::sregex_iterator found(text.begin(), text.end(), pattern), end; found != end; ++found) {
    const auto start = static_cast<std::size_t>(found->position());
    result += text.substr(copied, start - copied);
    result += names.try_emplace(found->str(), "id" + std::to_string(names.size() + 1)).first->second;
    copied = start + static_cast<std::size_t>(found->length());
  }
  return result + text.substr(copied);
}

}  // namespace

std::string ObservedEvent::text(const char* key) const {
  const auto found = event.find(key);
  return found != event.end() && found->is_string() ? found->get<std::string>() : std::string();
}

double ObservedEvent::number(const char* key) const {
  const auto found = event.find(key);
  return found != event.end() && found->is_number() ? found->get<double>() : 0;
}

Observation::Observation(const Scenario& ofScenario, const ScenarioRecord& ofRecord)
    : scenario(ofScenario), record(ofRecord), input(readHostInput(ofScenario)) {
  auto& protocol = ProtocolDescription::shared();
  for (const auto& line : record.output.lines) {
    auto event = WrittenEvent::parse(line.text, nullptr, false);
    if (!event.is_object()) continue;
    ObservedEvent observed{line.time, line.text, std::move(event), "", std::nullopt, std::nullopt, ""};
    observed.type = observed.text("type");
    if (observed.event.contains("sessionId")) observed.sessionId = observed.text("sessionId");
    if (observed.event.contains("source")) observed.source = observed.text("source");
    if (observed.isError())
      if (const auto& errors = protocol.errorsOf(observed.text("message")); !errors.empty())
        observed.code = errors.front()->code;
    events.push_back(std::move(observed));
  }
  const auto& settings = scenario.settings;
  isLegacy = !settings.macOS || settings.macOS->major < 26;
  if (!settings.arguments.empty())
    for (const auto* const option :
         {"--health", "--authorize", "--install-assets", "--research-transcribe-file"})
      if (settings.arguments.front() == option) mode = option;
  hasUnencodableEvents = std::ranges::any_of(record.errorOutput.lines, [](const auto& line) {
    return line.text.starts_with("Failed to encode helper event: ");
  });
  for (const auto& probe : record.received.value("probes", JSON::array()))
    if (probe.at("cancelledAt").is_number())
      probes_.emplace_back(probe.at("madeAt"), probe.at("cancelledAt"));
  clockShifts_.emplace_back(-std::numeric_limits<double>::infinity(), scenario.state.clockShift);
  for (const auto& action : scenario.actions)
    if (const auto* const step = std::get_if<MachineStep>(&action.what))
      if (step->key == "platform" && step->value.contains("clockShift")) {
        clockShifts_.emplace_back(action.time, step->value.at("clockShift"));
        hasClockChanges = true;
      }
}

double Observation::handledBy(double time) const {
  for (const auto& [start, end] : probes_)
    if (start <= time && time <= end) time = end;
  return time;
}

std::optional<double> Observation::clockShift(double time) const {
  const auto later =
      std::ranges::find_if(clockShifts_, [&](const auto& shift) { return shift.first > time; });
  const auto& [since, shift] = *std::prev(later);
  if (since == time) return std::nullopt;
  return shift;
}

std::optional<BrokenInvariant> brokenInvariant(const Scenario& scenario, const ScenarioRecord& record) {
  const Observation observation(scenario, record);
  std::optional<BrokenInvariant> first;
  for (const auto& invariant : allInvariants()) {
    Findings findings;
    invariant.check(observation, findings);
    for (const auto& [time, what] : findings.all())
      if (!first || time < first->time) first = BrokenInvariant{invariant.id, what, time};
  }
  return first;
}

std::vector<std::pair<std::string, std::string>> invariants() {
  std::vector<std::pair<std::string, std::string>> list;
  for (const auto& invariant : allInvariants()) list.emplace_back(invariant.id, textOf(invariant));
  return list;
}

std::string describe(const BrokenInvariant& broken, const Scenario& scenario, const ScenarioRecord& record) {
  struct Step {
    double time;
    std::string text;
  };
  std::vector<Step> steps;
  for (const auto& action : scenario.actions) {
    if (const auto* const sent = std::get_if<HostBytes>(&action.what)) {
      steps.push_back({action.time, "> " + withoutAudio(sent->bytes)});
    } else if (const auto* const step = std::get_if<MachineStep>(&action.what)) {
      steps.push_back({action.time, "  " + step->key + " " + step->value.dump()});
    } else {
      steps.push_back({action.time, "> end of input"});
    }
  }
  for (const auto& line : record.output.lines) steps.push_back({line.time, "< " + line.text});
  for (const auto& line : record.errorOutput.lines) steps.push_back({line.time, "! " + line.text});
  std::ranges::stable_sort(steps, {}, &Step::time);
  // Some steps after the finding belong to it: those of the same time.
  const auto end = std::ranges::find_if(steps, [&](const Step& step) { return step.time > broken.time; });
  const auto count = static_cast<std::size_t>(end - steps.begin());

  std::string report =
      "  " + broken.id + " is broken at " + shown(broken.time) + " ms: " + broken.what + "\n";
  for (const auto& [id, text] : invariants())
    if (id == broken.id) report += "  the invariant: " + text + "\n";
  report += "  commands (>), events (<), standard error (!) and the machine until then:\n";
  for (std::size_t i = count - std::min(count, shownSteps); i < count; ++i) {
    std::string at = shown(steps[i].time);
    if (at.size() < 9) at.insert(0, 9 - at.size(), ' ');
    report += "  " + at + " " + steps[i].text + "\n";
  }
  std::map<std::string, std::string> names;
  return withoutRandomIds(report, names);
}

}  // namespace palaver
