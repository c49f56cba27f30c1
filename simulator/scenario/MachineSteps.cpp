#include "simulator/scenario/MachineSteps.h"

#include <optional>
#include <utility>

#include "simulator/scenario/AnalysisSteps.h"

namespace palaver {

namespace {

// Holds one answer of a recognition task.
struct RecognizerAnswer {
  TaskChoice task;
  RecognitionAnswer answer;
};

TaskChoice readTaskChoice(ObjectReader& reader) {
  using By = TaskChoice::By;
  std::optional<TaskChoice> choice;
  for (const auto& [key, by] :
       {std::pair{"task", By::start}, {"probe", By::probeStart}, {"heard", By::sample}})
    if (const auto number = reader.wholeNumber(key)) {
      if (choice) reader.fail("has more than one of task, probe, heard");
      if (by != By::sample && *number < 1) throw FileError(reader.where(key), "must be a number from 1");
      choice = {by, *number};
    }
  return choice.value_or(TaskChoice());
}

RecognizerAnswer readRecognizerAnswer(const JSON& value, const std::string& where) {
  ObjectReader reader(value, where);
  const auto task = readTaskChoice(reader);
  auto answer = readRecognitionAnswer(reader);
  reader.finish();
  if (!answer.result && !answer.error) reader.fail("has none of partial, final, error");
  return {task, std::move(answer)};
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
