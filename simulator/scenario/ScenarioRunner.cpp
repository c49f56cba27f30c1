#include "simulator/scenario/ScenarioRunner.h"

#include <set>
#include <utility>

#include "app/Helper.h"
#include "simulator/scenario/ScenarioRecord.h"

namespace palaver {

namespace {

// Adapts the simulated platform in virtual time to ControlledMachine.
class VirtualMachine final : public ControlledMachine {
 public:
  explicit VirtualMachine(SimulatedPlatform& platform) : platform_(platform) {}

  SimulatedSpeechRecognition& speechRecognition() override { return platform_.speechRecognition; }
  SimulatedSpeechAnalysis& speechAnalysis() override { return platform_.speechAnalysis; }
  void setFault(SimulatedAudioBuffers::Fault fault) override { platform_.audioBuffers.setFault(fault); }
  void setFault(SimulatedAudioConverters::Fault fault) override { platform_.audioConverters.setFault(fault); }
  void setClockShift(double shift) override { platform_.clock.setShift(shift); }
  void setSlicesDeliverInsideJobs(bool deliver) override {
    platform_.scheduler.setSlicesDeliverInsideJobs(deliver);
  }

 private:
  SimulatedPlatform& platform_;
};

ScenarioRecord::Stream streamOf(const RecordingOutput& output) {
  return {output.lines(), output.rest()};
}

ScenarioRecord runOnce(const Scenario& scenario, const std::optional<std::uint64_t>& seed,
                       const ScenarioProgram& program) {
  SimulatedSettings settings = scenario.settings;
  settings.seed = seed;
  const ScenarioDirectory directory(scenario.files);
  for (auto& argument : settings.arguments) argument = directory.located(argument);
  SimulatedPlatform platform(std::move(settings));
  VirtualMachine machine(platform);
  Stage stage(machine, scenario.state);
  ScenarioRecord record;
  std::multiset<double> ahead;  // times of the steps that have not been performed
  const auto perform = [&](const ScenarioAction& action) {
    ahead.erase(ahead.find(action.time));
    if (const auto* const bytes = std::get_if<HostBytes>(&action.what)) {
      platform.standardInput.arrive(bytes->bytes);
    } else if (const auto* const step = std::get_if<MachineStep>(&action.what)) {
      if (auto complaint = stage.perform(*step)) record.complaints.push_back(std::move(*complaint));
    } else {
      platform.standardInput.end();
    }
  };
  for (const auto& action : scenario.actions) {
    ahead.insert(action.time);
    platform.scheduler.schedule(action.time, Timeline::Context::background, &scenario,
                                [&] { perform(action); });
  }
  // Counted while the helper still runs.
  std::size_t buffersLeft = 0;
  if (scenario.checksInvariants)
    platform.scheduler.schedule(scenario.until, Timeline::Context::background, &buffersLeft,
                                [&] { buffersLeft = platform.audioBuffers.buffersLeft(); });
  record.exitStatus = platform.run([&](Platform& parts) { program(platform, parts); }, scenario.until);
  if (record.exitStatus && !ahead.empty())
    record.complaints.push_back(complaintAboutLateSteps(ahead.size(), *ahead.begin()));
  record.output = streamOf(platform.standardOutput);
  record.errorOutput = streamOf(platform.standardError);
  record.received = receivedBy(platform.speechRecognition, platform.speechAnalysis);
  record.received["audioBuffers"] = {{"left", buffersLeft}, {"most", platform.audioBuffers.mostBuffers()}};
  return record;
}

std::optional<std::string> playOnce(const Scenario& scenario, const std::optional<std::uint64_t>& seed,
                                    const ScenarioProgram& program) {
  auto report = compare(scenario, runOnce(scenario, seed, program));
  if (report && seed) report->insert(0, "  with seed " + std::to_string(*seed) + ":\n");
  return report;
}

void runHelperOn(SimulatedPlatform&, Platform& platform) {
  runHelper(platform);
}

}  // namespace

std::optional<std::string> play(const Scenario& scenario) {
  return play(scenario, runHelperOn);
}

std::optional<std::string> play(const Scenario& scenario, const ScenarioProgram& program) {
  for (const auto& seed : scenario.seeds)
    if (auto report = playOnce(scenario, seed, program)) return report;
  return std::nullopt;
}

ScenarioRecord recordOnce(const Scenario& scenario, const std::optional<std::uint64_t>& seed) {
  return runOnce(scenario, seed, runHelperOn);
}

}  // namespace palaver
