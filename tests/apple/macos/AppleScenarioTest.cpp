// Plays every scenario with the macOS adapters between the helper and the simulated machine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "app/Helper.h"
#include "simulator/scenario/Scenario.h"
#include "simulator/scenario/ScenarioRunner.h"
#include "tests/apple/support/AppleSimulation.h"

namespace palaver {
namespace {

std::vector<std::filesystem::path> scenarios() {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(
           std::filesystem::path(PALAVER_SOURCE_DIRECTORY) / "tests" / "scenarios"))
    if (entry.path().extension() == ".json") files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

// Expected differences due to the frameworks, by scenario.
const std::map<std::string, std::string> differences{
    // A buffer without frames never reaches the recognizer, because the system's behaviour for it is unknown.
    {"empty-payload-is-empty-buffer", "buffers is 0 instead of 1"},
    // There are no background results. The probe receives its answer in the first run-loop slice.
    {"background-callbacks-change-only-probe-time",
     "standard output, line 1: it came at 20 ms instead of 0 ms"},
};

class AppleScenario : public testing::TestWithParam<std::filesystem::path> {};

TEST_P(AppleScenario, MatchesResultWithoutFrameworks) {
  const auto report = play(readScenario(GetParam()), [](SimulatedPlatform& machine, Platform& platform) {
    AppleSimulation apple(machine);
    Platform overApple = apple.over(platform);
    runHelper(overApple);
  });
  const auto known = differences.find(GetParam().stem().string());
  if (known == differences.end()) {
    EXPECT_FALSE(report) << *report;
  } else {
    EXPECT_THAT(report.value_or(""), testing::HasSubstr(known->second));
  }
}

INSTANTIATE_TEST_SUITE_P(All, AppleScenario, testing::ValuesIn(scenarios()), [](const auto& scenario) {
  auto name = scenario.param.stem().string();
  std::replace_if(
      name.begin(), name.end(), [](unsigned char c) { return !std::isalnum(c); }, '_');
  return name;
});

}  // namespace
}  // namespace palaver
