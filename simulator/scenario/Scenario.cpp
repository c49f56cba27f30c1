#include "simulator/scenario/Scenario.h"

#include <cmath>

#include "simulator/scenario/AnalysisSteps.h"
#include "simulator/scenario/Conversation.h"
#include "simulator/scenario/ScenarioDifferences.h"

namespace palaver {

namespace {

std::uint64_t readSeed(const JSON& value, const std::string& where) {
  if (!value.is_number_unsigned()) throw FileError(where, "must be a whole number, or a list of them");
  return value.get<std::uint64_t>();
}

void readSeeds(const JSON& value, const std::string& where, Scenario& scenario) {
  scenario.seeds.clear();
  if (value.is_array()) {
    for (const auto& seed : value) scenario.seeds.emplace_back(readSeed(seed, where));
  } else {
    scenario.seeds.emplace_back(readSeed(value, where));
  }
}

void readStrings(const JSON& values, const std::string& where, std::vector<std::string>& strings) {
  for (const auto& value : values) {
    if (!value.is_string()) throw FileError(where, "must hold strings");
    strings.push_back(value.get<std::string>());
  }
}

std::map<std::string, std::vector<std::string>> readFinals(const JSON& value, const std::string& where) {
  if (!value.is_object()) throw FileError(where, "must be an object of lists");
  std::map<std::string, std::vector<std::string>> finals;
  for (const auto& [source, texts] : value.items()) {
    const auto below = where + "." + source;
    if (!texts.is_array()) throw FileError(below, "must be a list");
    readStrings(texts, below, finals[source]);
  }
  return finals;
}

std::vector<JSON> readRequestPatterns(const JSON& values, const std::string& where) {
  std::vector<JSON> patterns;
  for (const auto& value : values) {
    ObjectReader reader(value, where + "[" + std::to_string(patterns.size()) + "]");
    for (const auto* const key : {"locale", "shouldReportPartialResults", "requiresOnDeviceRecognition",
                                  "taskHint", "contextualStrings", "madeAt", "endAudioAt", "cancelledAt",
                                  "frames", "buffers", "firstSamples", "loudness", "droppedBuffers"})
      reader.find(key);
    reader.finish();
    patterns.push_back(value);
  }
  return patterns;
}

void readSettings(ObjectReader& reader, Scenario& scenario) {
  auto& settings = scenario.settings;
  for (const auto* const key : {"system", "platform"})
    if (const auto* const value = reader.find(key)) scenario.machine[key] = *value;
  if (const auto system = reader.text("system")) settings.macOS = readSystem(*system, reader.where("system"));
  if (const auto startsAt = reader.number("startsAt")) settings.startsAt = *startsAt;
  if (const auto* const arguments = reader.array("arguments"))
    readStrings(*arguments, reader.where("arguments"), settings.arguments);
  if (const auto* const environment = reader.find("environment"))
    for (const auto& [name, value] : environment->items()) {
      if (!value.is_string()) throw FileError(reader.where("environment"), "must hold strings");
      settings.environment[name] = value.get<std::string>();
    }
  if (const auto* const platform = reader.find("platform"))
    readPlatformState(*platform, reader.where("platform"), scenario.state);
  settings.recognition = scenario.state.recognition;
  settings.analysis = scenario.state.analysis;
  if (const auto* const files = reader.find("files"))
    scenario.files = readScenarioFiles(*files, reader.where("files"));
}

}  // namespace

Scenario readScenario(const std::filesystem::path& path, const JSON& changes) {
  const auto name = path.filename().string();
  return readScenario(changed(readJSONFile(path), changes, name), name, path.parent_path());
}

Scenario readScenario(const JSON& file, const std::string& name, const std::filesystem::path& folder) {
  ObjectReader reader(file, name);
  Scenario scenario;
  if (const auto title = reader.text("title")) {
    scenario.title = *title;
  } else {
    reader.fail("has no title");
  }
  readSettings(reader, scenario);
  if (const auto* const seed = reader.find("seed")) readSeeds(*seed, reader.where("seed"), scenario);
  if (const auto until = reader.number("until")) scenario.until = *until;
  if (const auto status = reader.wholeNumber("exit")) scenario.exitStatus = static_cast<int>(*status);
  if (const auto* const requests = reader.array("requests"))
    scenario.requests = readRequestPatterns(*requests, reader.where("requests"));
  if (const auto* const probes = reader.array("probes"))
    scenario.probes = readRequestPatterns(*probes, reader.where("probes"));
  if (const auto* const analyzers = reader.array("analyzers"))
    scenario.analyzers = readAnalyzerPatterns(*analyzers, reader.where("analyzers"));

  JSON templates = JSON::object();
  if (const auto shared = reader.text("templates")) templates = readJSONFile(folder / *shared);
  if (!templates.is_object()) reader.fail("the templates must be an object");
  const auto* const conversation = reader.array("conversation");
  if (!conversation) reader.fail("has no conversation");
  readConversation(*conversation, templates, scenario);
  if (const auto* const finals = reader.find("finals")) {
    scenario.finals = readFinals(*finals, reader.where("finals"));
    if (!scenario.output.empty()) reader.fail("has both finals and expected events");
  }
  if (const auto check = reader.text("check")) {
    if (*check != "invariants") throw FileError(reader.where("check"), "must be \"invariants\"");
    if (!scenario.output.empty() || !scenario.errorOutput.empty() || scenario.requests || scenario.probes ||
        scenario.analyzers || scenario.exitStatus || scenario.finals)
      reader.fail("checks invariants, so it must expect neither output nor input of services nor an exit");
    scenario.checksInvariants = true;
  }
  reader.finish();
  return scenario;
}

}  // namespace palaver
