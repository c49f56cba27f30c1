// Fixture for conversations with the helper that need code. Prefer a scenario file where data is enough.
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
  // Created from `settings` at the first call.
  SimulatedPlatform& machine();

  // Runs the function at a time, in the background.
  void at(double time, std::function<void()> happens);
  // Writes a command as the host. A string is written byte for byte.
  void host(double time, const nlohmann::json& command);
  void bytes(double time, std::string text);
  // Sends 100 ms of audio for the session "a".
  void audio(double time, double rms = 0.1, const std::string& source = "remote");
  // Lets the newest task answer.
  void answers(double time, RecognitionAnswer answer);
  void partial(double time, const std::string& text) {
    answers(time, {RecognitionResult{text, {}, false}, {}});
  }
  void final(double time, const std::string& text) { answers(time, {RecognitionResult{text, {}, true}, {}}); }

  // Runs the helper until it exits. Returns its status, or none when it would wait forever.
  std::optional<int> play();

  // The output: all events, the events of one type, and standard error.
  std::vector<nlohmann::json> events();
  std::vector<nlohmann::json> events(const std::string& type);
  std::string errorOutput();

  SimulatedSettings settings;

 private:
  std::optional<SimulatedPlatform> machine_;
};

}  // namespace palaver
