#include "modes/ModelAssets.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "core/JSONLineWriter.h"
#include "simulator/machine/SimulatedPlatform.h"

namespace palaver {
namespace {

TEST(ModelAssetsTest, LocaleThatIsNotUTF8IsAnsweredOnStandardOutput) {
  SimulatedSettings settings;
  settings.macOS = OperatingSystemVersion{26, 0, 0};
  SimulatedPlatform machine(settings);
  const auto status = machine.run(
      [](Platform& platform) {
        JSONLineWriter writer(platform.clock, platform.standardOutput, platform.standardError);
        installSpeechAnalyzerAssets(platform, writer, "ja\xFF-JP");
      },
      1000);
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(machine.standardError.lines().empty());
  ASSERT_EQ(machine.standardOutput.lines().size(), 1U);
  EXPECT_EQ(nlohmann::json::parse(machine.standardOutput.lines()[0].text).at("message"),
            "SpeechAnalyzer does not support locale ja\uFFFD-JP");
}

}  // namespace
}  // namespace palaver
