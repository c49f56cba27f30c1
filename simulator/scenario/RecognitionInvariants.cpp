// The invariants of the results: each belongs to the audio that it was recognized in. Results are traced by
// their texts, which are all different.
#include <algorithm>
#include <cmath>
#include <regex>

#include "simulator/scenario/AudioTrace.h"

namespace palaver {

namespace {

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t\r\n") + 1 - first);
}

// A result that a step of the scenario gives, with its receiver.
struct GivenResult {
  double stepTime;  // ms
  double time;      // of the result, ms
  const JSON* step;
  std::string text;  // trimmed
  bool isFinal;
  std::optional<std::size_t> receiver;  // none: unknown
  std::optional<std::size_t> heard;     // the chunk by which the step names its receiver
};

// Returns the results of steps that have a text that no other step has.
std::vector<GivenResult> givenResults(const Observation& observation, const AudioTrace& trace) {
  std::vector<GivenResult> results;
  std::map<std::string, std::size_t> uses;
  for (const auto& action : observation.scenario.actions) {
    const auto* const step = std::get_if<MachineStep>(&action.what);
    if (!step || step->key == "platform") continue;
    const auto& value = step->value;
    const bool isFinal = value.contains("final");
    if (!isFinal && !value.contains("partial")) continue;
    GivenResult result{action.time, action.time + value.value("after", 0.0),
                       &value,      trimmed(value.at(isFinal ? "final" : "partial")),
                       isFinal,     std::nullopt,
                       std::nullopt};
    if (value.contains("heard")) {
      const auto heard = trace.names.find(value.at("heard").get<std::int16_t>());
      for (std::size_t i = 0; heard != trace.names.end() && i < trace.receivers.size(); ++i) {
        const auto& [record, chunks, received, episode] = trace.receivers[i];
        if (std::find(chunks.begin(), chunks.begin() + static_cast<std::ptrdiff_t>(received),
                      heard->second) != chunks.begin() + static_cast<std::ptrdiff_t>(received))
          result.receiver = i;
        if (heard != trace.names.end()) result.heard = heard->second;
      }
    } else if (const auto number = value.value("task", value.value("number", 0)); number > 0) {
      if (static_cast<std::size_t>(number) <= trace.receivers.size())
        result.receiver = static_cast<std::size_t>(number) - 1;
    }
    ++uses[result.text];
    if (!result.text.empty()) results.push_back(std::move(result));
  }
  std::erase_if(results, [&](const GivenResult& result) { return uses[result.text] > 1; });
  std::ranges::stable_sort(results, {}, &GivenResult::time);
  return results;
}

void wordsOfSource(const Observation& observation, Findings& findings) {
  const auto& trace = observation.audio();
  std::map<std::string, Channel> sources;  // by text
  for (const auto& result : givenResults(observation, trace)) {
    if (!result.receiver) continue;
    const auto episode = trace.receivers[*result.receiver].episode;
    if (episode != std::string::npos) sources[result.text] = trace.episodes[episode].channel;
  }
  for (const auto& event : observation.events) {
    if (!event.isTranscript()) continue;
    const auto source = sources.find(event.text("text"));
    if (source != sources.end() && source->second != event.channel())
      findings.add(event.time, "words of session " + JSON(source->second.first).dump() + ", source " +
                                   source->second.second + ": " + event.line);
  }
}

// Returns whether a result must be written: its receiver takes part until then and is not about to end.
bool mustBeWritten(const Observation& observation, const AudioTrace& trace, const GivenResult& result) {
  if (!result.receiver) return false;
  const auto& receiver = trace.receivers[*result.receiver];
  if (receiver.received == 0 || receiver.episode == std::string::npos) return false;
  const auto& episode = trace.episodes[receiver.episode];
  // The receiver has the chunk since then, unless it was held back.
  const double heardAt =
      observation.handledBy(trace.chunks[result.heard.value_or(receiver.chunks.front())].command->time);
  if (result.stepTime <= std::max(heardAt, *receiver.time("madeAt")) || result.time >= episode.end)
    return false;
  const auto isBefore = [&](const char* key) {
    const auto time = receiver.time(key);
    return !time || result.time < *time;
  };
  if (observation.isLegacy)  // a second end of a task ends the next one
    return trace.keepsContract(episode.channel) && isBefore("cancelledAt") && isBefore("endedAt") &&
           observation.handledBy(result.time) == result.time;
  if (!isBefore("cancelledAt") || !isBefore("finalizedAt")) return false;
  const auto isReady = [&](const ObservedEvent& event) {
    return event.type == "session.ready" && event.channel() == episode.channel &&
           event.time >= *receiver.time("madeAt") && event.time < episode.end;
  };
  if (std::ranges::none_of(observation.events, isReady))
    return false;  // muted or stopped while being prepared
  // The results of an analyzer may have been ended before.
  return std::ranges::none_of(observation.scenario.actions, [&](const ScenarioAction& action) {
    const auto* const step = std::get_if<MachineStep>(&action.what);
    return step && step->key == "analyzer" && !step->value.contains("partial") &&
           !step->value.contains("final");
  });
}

void resultsWritten(const Observation& observation, Findings& findings) {
  if (observation.hasUnencodableEvents || !observation.mode.empty()) return;
  const auto& trace = observation.audio();
  std::map<std::string, std::vector<const ObservedEvent*>> events;  // by text
  for (const auto& event : observation.events)
    if (event.isTranscript()) events[event.text("text")].push_back(&event);
  std::map<std::size_t, double> latest;  // by receiver: when its newest result was written
  for (const auto& result : givenResults(observation, trace)) {
    const auto written = events.find(result.text);
    if (written == events.end()) {
      if (mustBeWritten(observation, trace, result))
        findings.add(result.time, "a result is not written: " + result.text);
      continue;
    }
    std::size_t count = 0;
    for (const auto* const event : written->second) {
      if (event->isFinal() && !result.isFinal) continue;  // repeats the partial
      if (event->isFinal() != result.isFinal)
        findings.add(event->time, "a result of another kind: " + event->line);
      if (++count > 1) findings.add(event->time, "a result is written twice: " + event->line);
      if (event->time < result.time)
        findings.add(event->time, "written before it was recognized: " + event->line);
      if (!result.receiver) continue;
      const auto cancelledAt = trace.receivers[*result.receiver].time("cancelledAt");
      if (cancelledAt && result.time > *cancelledAt)
        findings.add(event->time, "a result of a cancelled recognition: " + event->line);
      auto& before = latest[*result.receiver];
      if (event->time < before) findings.add(event->time, "written before an earlier result: " + event->line);
      before = std::max(before, event->time);
    }
  }
}

// Seconds of a range of the analyzer; 0 for one that is not finite.
double seconds(const JSON& value) {
  return value.is_number() ? value.get<double>() : 0;
}

void wordTimes(const Observation& observation, Findings& findings) {
  const auto& trace = observation.audio();
  std::map<std::string, GivenResult> given;
  for (const auto& result : givenResults(observation, trace))
    if (result.receiver) given.emplace(result.text, result);
  for (const auto& event : observation.events) {
    const auto found = event.isTranscript() ? given.find(event.text("text")) : given.end();
    if (found == given.end()) continue;
    const auto& [stepTime, time, step, text, isFinal, number, heard] = found->second;
    const auto& receiver = trace.receivers[*number];
    if (receiver.chunks.empty() || receiver.episode == std::string::npos) continue;
    const auto& episode = trace.episodes[receiver.episode];
    if (observation.isLegacy &&
        (!trace.keepsContract(episode.channel) || trace.chunks[receiver.chunks.front()].name == 0 ||
         receiver.chunks.size() != receiver.count("buffers") + receiver.count("droppedBuffers")))
      continue;
    double start = 0;
    double end = 0;
    if (observation.isLegacy) {
      const auto segments = step->value("segments", JSON::array());
      if (!segments.empty()) {
        start = segments.front()[0].get<double>();
        end = segments.back()[0].get<double>() + segments.back()[1].get<double>();
      }
    } else {
      const auto range = step->value("range", JSON::array({0, 0}));
      start = std::max(0.0, seconds(range[0]));
      end = std::max(seconds(range[0]), seconds(range[1]));
    }
    const auto isFrom = [&](double base) {
      return event.number("startedAt") == base + start * 1000 &&
             (!event.isFinal() || event.number("speechEndedAt") == base + end * 1000);
    };
    // Times count from the first chunk, or from now before any audio. On the analyzer backend the first one
    // may be one that was reported as lost: it counts if only its conversion failed.
    const auto first = receiver.chunks.front();
    const auto isBase = [&](std::size_t chunk) {
      const bool mayCount = chunk == first || (!observation.isLegacy && chunk < first);
      return mayCount && isFrom(*trace.chunks[chunk].command->capturedAt);
    };
    const bool isSure = !observation.isLegacy && !trace.isReportedLost(trace.chunks[episode.chunks.front()]);
    const bool isFromAudio =
        isSure ? isBase(episode.chunks.front()) : std::ranges::any_of(episode.chunks, isBase);
    if (!isFromAudio && !isFrom(event.number("transcribedAt")) && event.isPartial() == !isFinal)
      findings.add(event.time, "the times are not those of the audio: " + event.line);
  }
}

}  // namespace

std::vector<Invariant> recognitionInvariants() {
  return {{"words-of-source", "A transcript names the session and source in whose audio it was recognized.",
           wordsOfSource},
          {"results-written",
           "Every result of a running recognition is written exactly once, in its order, as a partial or a "
           "final. None "
           "of a cancelled one is.",
           resultsWritten},
          {"word-times",
           "startedAt and speechEndedAt are the capture time of the first chunk plus the times of the "
           "recognizer.",
           wordTimes}};
}

}  // namespace palaver
