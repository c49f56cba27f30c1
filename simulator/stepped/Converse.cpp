#include "simulator/stepped/Converse.h"

#include <algorithm>
#include <utility>

#include "simulator/stepped/SteppedProcess.h"

namespace palaver {

namespace {

// The permission prompt is polled in slices of 50 ms, and each slice costs a step of real threads.
constexpr double longestPrompt = 60'000;  // ms

std::optional<std::string> reasonToSkip(const Scenario& scenario) {
  const auto& arguments = scenario.settings.arguments;
  const auto& recognition = scenario.settings.recognition;
  const bool isPrompting = !arguments.empty() && arguments.front() == "--authorize" &&
                           scenario.settings.macOS && scenario.settings.macOS->major < 26;
  const auto answer = recognition.authorizationAnswer;
  if (isPrompting &&
      (recognition.neverAnswersAuthorization || (answer && answer->after.value_or(0) > longestPrompt)))
    return "the prompt stands for longer than a minute";
  return std::nullopt;
}

// Returns a complaint about steps after the end of the helper, or none.
std::optional<std::string> play(const Scenario& scenario, SteppedProcess& helper) {
  auto actions = scenario.actions;
  // Repeated steps are listed where the repetition starts.
  std::stable_sort(actions.begin(), actions.end(),
                   [](const auto& a, const auto& b) { return a.time < b.time; });
  for (auto action = actions.begin(); action != actions.end(); ++action) {
    const auto& [time, what] = *action;
    helper.advance(time, SteppedProcess::End::excluded);
    if (helper.hasEnded())
      return complaintAboutLateSteps(static_cast<std::size_t>(actions.end() - action), time);
    if (const auto* const bytes = std::get_if<HostBytes>(&what)) {
      helper.send(bytes->bytes);
    } else if (const auto* const step = std::get_if<MachineStep>(&what)) {
      helper.perform(*step);
    } else {
      helper.closeInput();
    }
  }
  helper.advance(scenario.until, SteppedProcess::End::included);
  return std::nullopt;
}

}  // namespace

ConversationOutcome converse(const Scenario& scenario, std::vector<std::string> command,
                             std::chrono::milliseconds bound) {
  if (auto reason = reasonToSkip(scenario)) return {std::move(reason), std::nullopt};
  const ScenarioDirectory directory(scenario.files);
  for (const auto& argument : scenario.settings.arguments) command.push_back(directory.located(argument));
  SteppedProcess helper(command, {scenario.settings.environment.begin(), scenario.settings.environment.end()},
                        bound);
  std::optional<std::string> failure;
  try {
    if (auto reason = helper.start(scenario.machine, scenario.settings.startsAt))
      return {std::move(reason), std::nullopt};
    if (const auto complaint = play(scenario, helper)) failure = "  " + *complaint + "\n";
    helper.askWhatWasReceived();
  } catch (const ConversationError& error) {
    failure = "  " + std::string(error.what()) + "\n";
  }
  auto report = compare(scenario, helper.record());
  if (failure) report = *failure + report.value_or("");
  if (report)
    if (const auto words = helper.lastWords(); !words.empty()) *report += "  its last words:\n" + words;
  return {std::nullopt, std::move(report)};
}

}  // namespace palaver
