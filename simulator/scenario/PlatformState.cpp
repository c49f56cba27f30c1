#include "simulator/scenario/PlatformState.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "simulator/scenario/AnalysisSteps.h"

namespace palaver {

namespace {

AuthorizationStatus readAuthorization(const JSON& value, const std::string& where) {
  if (value.is_number_integer()) return static_cast<AuthorizationStatus>(value.get<long>());
  if (!value.is_string()) throw FileError(where, "must be a number or a name");
  constexpr std::pair<const char*, AuthorizationStatus> choices[]{
      {"not-determined", AuthorizationStatus::notDetermined},
      {"denied", AuthorizationStatus::denied},
      {"restricted", AuthorizationStatus::restricted},
      {"authorized", AuthorizationStatus::authorized}};
  return oneOf(choices, value.get<std::string>(), where);
}

void readAuthorizationAnswer(const JSON& value, const std::string& where, RecognitionState& state) {
  state.neverAnswersAuthorization = value == "never";
  if (state.neverAnswersAuthorization) return;
  ObjectReader reader(value, where);
  RecognitionState::AuthorizationAnswer answer{.status = state.authorization, .after = 0};
  if (const auto* const status = reader.find("status"))
    answer.status = readAuthorization(*status, reader.where("status"));
  if (const auto after = reader.number("after")) answer.after = *after;
  if (reader.boolean("insideCall").value_or(false)) answer.after.reset();
  reader.finish();
  state.authorizationAnswer = answer;
}

void readLocales(const JSON& value, const std::string& where, RecognitionState& state) {
  if (!value.is_object()) throw FileError(where, "must be an object");
  state.locales.clear();
  for (const auto& [locale, model] : value.items()) {
    constexpr std::pair<const char*, bool> choices[]{{"supported", false}, {"installed", true}};
    if (!model.is_string()) throw FileError(where + "." + locale, "must be a string");
    state.locales[locale] = oneOf(choices, model.get<std::string>(), where + "." + locale);
  }
}

RecognitionState::ProbeAnswer readProbeAnswer(const JSON& value, const std::string& where) {
  RecognitionState::ProbeAnswer probe;
  if (value == "never") {
    probe.after.reset();
    return probe;
  }
  ObjectReader reader(value, where);
  probe.after = reader.number("after").value_or(0);
  const auto answer = readRecognitionAnswer(reader);
  if (answer.result || answer.error) probe.answer = answer;
  reader.finish();
  return probe;
}

void readProbe(const JSON& value, const std::string& where, RecognitionState& state) {
  state.nextProbeAnswers.clear();
  if (value.is_array()) {
    if (value.empty()) throw FileError(where, "must hold at least one answer");
    for (const auto& item : value)
      state.nextProbeAnswers.push_back(
          readProbeAnswer(item, where + "[" + std::to_string(state.nextProbeAnswers.size()) + "]"));
    state.probeAnswer = state.nextProbeAnswers.back().answer;
    state.probeAnswersAfter = state.nextProbeAnswers.back().after;
    state.nextProbeAnswers.pop_back();
    return;
  }
  if (value == "never") {
    state.probeAnswersAfter.reset();
    return;
  }
  ObjectReader reader(value, where);
  state.probeAnswersAfter = reader.number("after").value_or(0);
  const auto answer = readRecognitionAnswer(reader);
  if (answer.result || answer.error) state.probeAnswer = answer;
  reader.finish();
}

// Reads a delay in ms, null for no answer, or "insideCall".
void readDelay(ObjectReader& reader, const std::string& key, std::optional<double>& delay,
               bool& isInsideCall) {
  const auto* const value = reader.find(key);
  if (!value) return;
  isInsideCall = *value == "insideCall";
  if (!isInsideCall) delay = reader.numberOrNull(key).value();
}

void readUtterances(const JSON& value, const std::string& where, RecognitionState& state) {
  state.utterances.clear();
  for (const auto& item : value) {
    ObjectReader reader(item, where + "[" + std::to_string(state.utterances.size()) + "]");
    SimulatedUtterance utterance;
    if (const auto* const partials = reader.array("partials"))
      for (const auto& partial : *partials) {
        ObjectReader part(partial, reader.where("partials"));
        utterance.partials.push_back({part.number("afterAudio").value_or(0), part.text("text").value_or("")});
        part.finish();
      }
    utterance.finalText = reader.text("final").value_or("");
    reader.finish();
    state.utterances.push_back(std::move(utterance));
  }
}

}  // namespace

void readPlatformState(const JSON& value, const std::string& where, PlatformState& state) {
  ObjectReader reader(value, where);
  auto& recognition = state.recognition;
  if (const auto* const status = reader.find("authorization"))
    recognition.authorization = readAuthorization(*status, reader.where("authorization"));
  if (const auto* const answer = reader.find("authorizationAnswer"))
    readAuthorizationAnswer(*answer, reader.where("authorizationAnswer"), recognition);
  if (const auto* const locales = reader.find("locales"))
    readLocales(*locales, reader.where("locales"), recognition);
  if (const auto dictation = reader.text("dictation")) {
    constexpr std::pair<const char*, bool> choices[]{{"on", true}, {"off", false}};
    recognition.dictationIsOn = oneOf(choices, *dictation, reader.where("dictation"));
  }
  if (const auto* const probe = reader.find("probe")) readProbe(*probe, reader.where("probe"), recognition);
  if (const auto callbacks = reader.text("callbacks")) {
    constexpr std::pair<const char*, bool> choices[]{{"main", true}, {"background", false}};
    recognition.callbacksOnMainThread = oneOf(choices, *callbacks, reader.where("callbacks"));
  }
  readDelay(reader, "answersAfterEndAudio", recognition.answersAfterEndAudio,
            recognition.answersInsideEndAudio);
  readDelay(reader, "answersAfterCancel", recognition.answersAfterCancel, recognition.answersInsideCancel);
  if (const auto* const utterances = reader.array("utterances"))
    readUtterances(*utterances, reader.where("utterances"), recognition);
  if (const auto fault = reader.text("audioBuffers")) {
    using Fault = SimulatedAudioBuffers::Fault;
    constexpr std::pair<const char*, Fault> choices[]{
        {"work", Fault::none},           {"noFormat", Fault::noFormat},
        {"noBuffer", Fault::noBuffer},   {"noEmptyBuffer", Fault::noEmptyBuffer},
        {"noSamples", Fault::noSamples}, {"noOtherFormat", Fault::noOtherFormat}};
    state.audioBuffers = oneOf(choices, *fault, reader.where("audioBuffers"));
  }
  if (const auto fault = reader.text("audioConverters")) {
    using Fault = SimulatedAudioConverters::Fault;
    constexpr std::pair<const char*, Fault> choices[]{
        {"work", Fault::none}, {"noConverter", Fault::noConverter}, {"fail", Fault::failing}};
    state.audioConverters = oneOf(choices, *fault, reader.where("audioConverters"));
  }
  if (const auto* const analysis = reader.find("analysis"))
    readAnalysisState(*analysis, reader.where("analysis"), state.analysis);
  if (const auto shift = reader.number("clockShift")) state.clockShift = *shift;
  if (const auto deliver = reader.boolean("slicesDeliverInsideJobs"))
    state.slicesDeliverInsideJobs = *deliver;
  reader.finish();
}

void apply(const PlatformState& state, ControlledMachine& machine) {
  machine.speechRecognition().setState(state.recognition);
  machine.speechAnalysis().setState(state.analysis);
  machine.setFault(state.audioBuffers);
  machine.setFault(state.audioConverters);
  machine.setClockShift(state.clockShift);
  machine.setSlicesDeliverInsideJobs(state.slicesDeliverInsideJobs);
}

std::optional<OperatingSystemVersion> readSystem(const std::string& text, const std::string& where) {
  if (text == "Linux") return std::nullopt;
  OperatingSystemVersion version;
  if (std::sscanf(text.c_str(), "macOS %d.%d.%d", &version.major, &version.minor, &version.patch) < 1)
    throw FileError(where, "must be \"Linux\" or \"macOS\" and a version");
  return version;
}

MachineState readMachineState(const JSON& value, const std::string& where) {
  ObjectReader reader(value, where);
  MachineState state;
  if (const auto system = reader.text("system")) state.macOS = readSystem(*system, reader.where("system"));
  if (const auto* const platform = reader.find("platform"))
    readPlatformState(*platform, reader.where("platform"), state.platform);
  reader.finish();
  return state;
}

PlatformError readPlatformError(const JSON& value, const std::string& where) {
  if (value.is_string()) {
    using Make = PlatformError (*)();
    constexpr std::pair<const char*, Make> choices[]{{"noSpeech", noSpeechError},
                                                     {"dictationDisabled", dictationDisabledError},
                                                     {"cancelled", cancelledError}};
    return oneOf(choices, value.get<std::string>(), where)();
  }
  ObjectReader reader(value, where);
  PlatformError error(reader.text("domain").value_or("kAFAssistantErrorDomain"),
                      static_cast<long>(reader.wholeNumber("code").value_or(0)),
                      reader.text("text").value_or(""));
  reader.finish();
  return error;
}

RecognitionAnswer readRecognitionAnswer(ObjectReader& reader) {
  RecognitionAnswer answer;
  const auto partial = reader.text("partial");
  const auto final = reader.text("final");
  if (partial && final) reader.fail("has both partial and final");
  if (partial || final) answer.result = RecognitionResult{partial ? *partial : *final, {}, final.has_value()};
  if (const auto* const segments = reader.array("segments")) {
    if (!answer.result) reader.fail("has segments, but neither partial nor final");
    for (const auto& segment : *segments) {
      const bool isPair =
          segment.is_array() && segment.size() == 2 && segment[0].is_number() && segment[1].is_number();
      if (!isPair)
        throw FileError(reader.where("segments"), "must hold pairs of numbers, start and length in s");
      answer.result->segments.push_back({"", segment[0].get<double>(), segment[1].get<double>()});
    }
  }
  if (const auto* const error = reader.find("error"))
    answer.error = readPlatformError(*error, reader.where("error"));
  return answer;
}

}  // namespace palaver
