// Tests the system version that Foundation reports.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"
#include "platform/audio/SndfileAudioFile.h"
#include "platform/audio/SpeexAudioConverter.h"
#include "platform/macos/MacProcess.h"
#include "simulator/machine/Scheduler.h"
#include "simulator/machine/SimulatedSpeechRecognition.h"

namespace palaver {
namespace {

TEST(MacProcess, SystemVersionIsCompared) {
  Scheduler scheduler;
  SimulatedSpeechRecognition recognition(scheduler, {});
  SpeexAudioConverters converters;
  SndfileAudioFiles files;
  FrameworkBehaviour behaviour(recognition, converters, files, {});
  char program[] = "program", option[] = "--health";
  char* arguments[] = {program, option, nullptr};
  struct Case {
    OperatingSystemVersion system, wanted;
    bool isAtLeast;
  };
  const std::vector<Case> cases{
      {{15, 7, 1}, {26, 0, 0}, false},
      {{26, 0, 0}, {26, 0, 0}, true},
      {{26, 5, 1}, {26, 5, 2}, false},
      {{26, 5, 1}, {26, 4, 9}, true},
      {{14, 0, 0}, {14, 0, 0}, true},
      {{27, 0, 0}, {26, 0, 0}, true},
      // The version that macOS 26 reports to a program built with an older SDK.
      {{16, 0, 0}, {26, 0, 0}, true},
      {{16, 5, 0}, {27, 0, 0}, false},
  };
  for (const auto& [system, wanted, isAtLeast] : cases) {
    behaviour.systemVersion = system;
    const MacProcess process(2, arguments);
    EXPECT_EQ(process.isMacOSAtLeast(wanted), isAtLeast) << system.major << "." << system.minor;
    EXPECT_EQ(process.arguments(), (std::vector<std::string>{"program", "--health"}));
  }
}

}  // namespace
}  // namespace palaver
