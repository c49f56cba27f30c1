#include "simulator/scenario/MachineSteps.h"

#include <cmath>
#include <cstddef>
#include <utility>

#include "simulator/scenario/AnalysisSteps.h"

namespace palaver {

namespace {

// Holds one answer of a recognition task.
struct RecognizerAnswer {
  std::size_t task;  // 1-based start order; 0 is the newest
  RecognitionAnswer answer;
};

RecognizerAnswer readRecognizerAnswer(const JSON& value, const std::string& where) {
  ObjectReader reader(value, where);
  const double task = reader.number("task").value_or(0);
  auto answer = readRecognitionAnswer(reader);
  reader.finish();
  if (!answer.result && !answer.error) reader.fail("has none of partial, final, error");
  if (!(task >= 0) || task != std::floor(task)) reader.fail("task must be a number from 1");
  return {static_cast<std::size_t>(task), std::move(answer)};
}

}  // namespace

MachineStep readMachineStep(const std::string& key, const JSON& value, const std::string& where) {
  PlatformState unused;
  if (key == "recognizer") {
    readRecognizerAnswer(value, where);
  } else if (key == "analyzer") {
    readAnalyzerEmission(value, where);
  } else if (key == "platform") {
    readPlatformState(value, where, unused);
  } else {
    throw FileError(where, "a machine has no step \"" + key + "\"");
  }
  return {key, value, where};
}

Stage::Stage(ControlledMachine& machine, PlatformState state) : machine_(machine), state_(std::move(state)) {
  apply(state_, machine_);
}

std::optional<std::string> Stage::perform(const MachineStep& step) {
  const auto& [key, value, where] = step;
  if (key == "recognizer") {
    auto [task, answer] = readRecognizerAnswer(value, where);
    if (!machine_.speechRecognition().answer(task, std::move(answer)))
      return where + ": there is no such task yet";
  } else if (key == "analyzer") {
    auto [analyzer, result, after] = readAnalyzerEmission(value, where);
    if (!machine_.speechAnalysis().emit(analyzer, std::move(result), after))
      return where + ": there is no such analyzer yet";
  } else {
    // Services also change their own state, for example when a download finishes.
    state_.recognition = machine_.speechRecognition().state();
    state_.analysis = machine_.speechAnalysis().state();
    readPlatformState(value, where, state_);
    apply(state_, machine_);
  }
  return std::nullopt;
}

}  // namespace palaver
