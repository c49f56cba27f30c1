// A fixture for tests that hold a conversation with the helper and need code for it. Where data will do, a
// scenario reads better.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "simulator/machine/SimulatedPlatform.h"

namespace palaver {

// All times are ms since the start of the simulated machine.
class ConversationTest : public testing::Test {
 protected:
  // The machine, made at the first call from `settings`.
  SimulatedPlatform& machine();

  // Something happens at a time, in the background.
  void at(double time, std::function<void()> happens);
  // The host writes a command; strings for bytes as they are.
  void host(double time, const nlohmann::json& command);
  void bytes(double time, std::string text);
  // The host sends 100 ms of audio of the session "a".
  void audio(double time, double rms = 0.1, const std::string& source = "remote");
  // The newest task answers.
  void answers(double time, RecognitionAnswer answer);
  void partial(double time, const std::string& text) {
    answers(time, {RecognitionResult{text, {}, false}, {}});
  }
  void final(double time, const std::string& text) { answers(time, {RecognitionResult{text, {}, true}, {}}); }

  // Runs the helper until it ends (its status) or would wait for ever (none).
  std::optional<int> play();

  // What came out: all events, those of one type, and standard error.
  std::vector<nlohmann::json> events();
  std::vector<nlohmann::json> events(const std::string& type);
  std::string errorOutput();

  SimulatedSettings settings;

 private:
  std::optional<SimulatedPlatform> machine_;
};

}  // namespace palaver
