#include "simulator/scenario/AnalysisSteps.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "simulator/scenario/PlatformState.h"

namespace palaver {

namespace {

constexpr std::pair<const char*, CommonFormat> commonFormats[]{{"other", CommonFormat::other},
                                                               {"float32", CommonFormat::float32},
                                                               {"float64", CommonFormat::float64},
                                                               {"int16", CommonFormat::int16},
                                                               {"int32", CommonFormat::int32}};

SimulatedOperation readOperation(const JSON& value, const std::string& where) {
  if (value == "never") return {.takes = std::nullopt};
  if (value.is_number()) return {.takes = value.get<double>()};
  ObjectReader reader(value, where);
  SimulatedOperation operation;
  if (const auto after = reader.number("after")) operation.takes = *after;
  if (const auto* const error = reader.find("error"))
    operation.error = readPlatformError(*error, reader.where("error"));
  operation.answersInsideCall = reader.boolean("insideCall").value_or(false);
  reader.finish();
  return operation;
}

std::optional<AudioFormat> readFormat(const JSON& value, const std::string& where) {
  if (value.is_null()) return std::nullopt;
  ObjectReader reader(value, where);
  AudioFormat format{CommonFormat::int16, 16000, 1, true};
  if (const auto samples = reader.text("samples"))
    format.commonFormat = oneOf(commonFormats, *samples, reader.where("samples"));
  if (const auto rate = reader.number("rate")) format.sampleRate = *rate;
  if (const auto channels = reader.wholeNumber("channels"))
    format.channelCount = static_cast<std::uint32_t>(*channels);
  if (const auto interleaved = reader.boolean("interleaved")) format.interleaved = *interleaved;
  reader.finish();
  return format;
}

// Reads seconds: a number, "NaN", "Infinity" or "-Infinity".
double readSeconds(const JSON& value, const std::string& where) {
  if (value.is_number()) return value.get<double>();
  using Limits = std::numeric_limits<double>;
  constexpr std::pair<const char*, double> choices[]{
      {"NaN", Limits::quiet_NaN()}, {"Infinity", Limits::infinity()}, {"-Infinity", -Limits::infinity()}};
  if (!value.is_string()) throw FileError(where, "must be a number or a name");
  return oneOf(choices, value.get<std::string>(), where);
}

std::pair<double, double> readRange(ObjectReader& reader) {
  const auto* const range = reader.array("range");
  if (!range) return {0, 0};
  const auto where = reader.where("range");
  if (range->size() != 2) throw FileError(where, "must hold start and end, in s");
  return {readSeconds(range->at(0), where), readSeconds(range->at(1), where)};
}

AssetStatus readModel(const std::string& name, const std::string& where) {
  constexpr std::pair<const char*, AssetStatus> choices[]{{"unsupported", AssetStatus::unsupported},
                                                          {"supported", AssetStatus::supported},
                                                          {"downloading", AssetStatus::downloading},
                                                          {"installed", AssetStatus::installed}};
  return oneOf(choices, name, where);
}

void readLocales(const JSON& value, const std::string& where, AnalysisState& state) {
  if (!value.is_object()) throw FileError(where, "must be an object");
  state.locales.clear();
  for (const auto& [asked, served] : value.items()) {
    if (!served.is_string()) throw FileError(where + "." + asked, "must be a string");
    state.locales[asked] = served.get<std::string>();
  }
}

SimulatedAnalysisUtterance readUtterance(const JSON& value, const std::string& where) {
  ObjectReader reader(value, where);
  SimulatedAnalysisUtterance utterance;
  if (const auto* const partials = reader.array("partials"))
    for (const auto& partial : *partials) {
      ObjectReader part(partial, reader.where("partials"));
      utterance.partials.push_back({part.number("afterAudio").value_or(0), part.text("text").value_or("")});
      part.finish();
    }
  utterance.finalText = reader.text("final").value_or("");
  utterance.finalAfter = reader.number("finalAfter");
  std::tie(utterance.start, utterance.end) = readRange(reader);
  reader.finish();
  return utterance;
}

JSON toJSON(const AudioFormat& format) {
  const auto* const name =
      std::find_if(std::begin(commonFormats), std::end(commonFormats),
                   [&](const auto& known) { return known.second == format.commonFormat; });
  return {{"samples", name->first},
          {"rate", format.sampleRate},
          {"channels", format.channelCount},
          {"interleaved", format.interleaved}};
}

JSON toJSON(const std::optional<double>& time) {
  return time ? JSON(*time) : JSON(nullptr);
}

}  // namespace

void readAnalysisState(const JSON& value, const std::string& where, AnalysisState& state) {
  ObjectReader reader(value, where);
  const auto operation = [&](const char* key, SimulatedOperation& into) {
    if (const auto* const found = reader.find(key)) into = readOperation(*found, reader.where(key));
  };
  if (const auto available = reader.boolean("available")) state.isAvailable = *available;
  if (const auto* const locales = reader.find("locales"))
    readLocales(*locales, reader.where("locales"), state);
  if (const auto model = reader.text("model")) state.model = readModel(*model, reader.where("model"));
  if (const auto model = reader.text("modelAfterDownload"))
    state.modelAfterDownload = readModel(*model, reader.where("modelAfterDownload"));
  if (const auto* const format = reader.find("format"))
    state.format = readFormat(*format, reader.where("format"));
  operation("localeLookup", state.localeLookup);
  operation("modelLookup", state.modelLookup);
  operation("formatLookup", state.formatLookup);
  operation("installationRequest", state.installationRequest);
  operation("download", state.download);
  operation("prepare", state.prepare);
  operation("finalize", state.finalize);
  operation("cancel", state.cancel);
  if (const auto* const utterances = reader.array("utterances")) {
    state.utterances.clear();
    for (const auto& utterance : *utterances)
      state.utterances.push_back(readUtterance(utterance, reader.where("utterances")));
  }
  reader.finish();
}

AnalyzerEmission readAnalyzerEmission(const JSON& value, const std::string& where) {
  ObjectReader reader(value, where);
  const auto number = reader.wholeNumber("number").value_or(0);
  const auto partial = reader.text("partial");
  const auto final = reader.text("final");
  const auto* const error = reader.find("error");
  const bool ends = reader.boolean("end").value_or(false);
  const bool isCancelled = reader.boolean("cancelled").value_or(false);
  const auto [start, end] = readRange(reader);
  const double after = reader.number("after").value_or(0);
  reader.finish();
  if (number < 0) reader.fail("number must be a number from 1");
  if (partial.has_value() + final.has_value() + (error != nullptr) + ends + isCancelled != 1)
    reader.fail("must hold exactly one of partial, final, error, end, cancelled");

  NextResult result = EndOfResults{};
  if (partial || final) result = TranscriptionResult{partial ? *partial : *final, start, end, !partial};
  if (error) result = readPlatformError(*error, reader.where("error"));
  if (isCancelled) result = ResultsCancelled{};
  return {static_cast<std::size_t>(number), std::move(result), after};
}

JSON toJSON(const RecordedAnalysis& analysis) {
  JSON value{{"locale", analysis.locale},
             {"contextualStrings", analysis.contextualStrings},
             {"preparedFor", analysis.preparedFor ? toJSON(*analysis.preparedFor) : JSON(nullptr)},
             {"buffers", analysis.buffers.size()},
             {"frames", JSON::array()},
             {"firstSamples", JSON::array()},
             {"formats", JSON::array()},
             {"droppedBuffers", analysis.droppedBuffers},
             {"madeAt", analysis.madeAt},
             {"inputFinishedAt", toJSON(analysis.inputFinishedAt)},
             {"finalizedAt", toJSON(analysis.finalizedAt)},
             {"cancelledAt", toJSON(analysis.cancelledAt)}};
  for (const auto& buffer : analysis.buffers) {
    value["frames"].push_back(buffer.frames);
    value["firstSamples"].push_back(buffer.firstSample);
    const JSON format = toJSON(buffer.format);
    auto& formats = value["formats"];
    if (std::find(formats.begin(), formats.end(), format) == formats.end()) formats.push_back(format);
  }
  return value;
}

std::vector<JSON> readAnalyzerPatterns(const JSON& values, const std::string& where) {
  const JSON known = toJSON(RecordedAnalysis());
  std::vector<JSON> patterns;
  for (const auto& value : values) {
    ObjectReader reader(value, where + "[" + std::to_string(patterns.size()) + "]");
    for (const auto& [key, unused] : known.items()) reader.find(key);
    reader.finish();
    patterns.push_back(value);
  }
  return patterns;
}

}  // namespace palaver
