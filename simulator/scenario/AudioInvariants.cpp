// The invariants of the audio: each chunk reaches the recognizer of its source, or a rule names why it does
// not.
#include <algorithm>
#include <cmath>
#include <string>

#include "simulator/scenario/AudioTrace.h"

namespace palaver {

namespace {

std::string shown(const Chunk& chunk) {
  return "the chunk with the first sample " + std::to_string(chunk.name) + ", sent at " +
         JSON(chunk.command->time).dump() + " ms for session " + JSON(chunk.channel.first).dump() +
         ", source " + chunk.channel.second;
}

void audioSource(const Observation& observation, Findings& findings) {
  const auto& trace = observation.audio();
  for (const auto& receiver : trace.receivers)
    for (const auto number : receiver.chunks) {
      const auto& chunk = trace.chunks[number];
      if (chunk.episode == std::string::npos || !chunk.isValid) {
        findings.add(chunk.command->time, "recognized without a session, muted or invalid: " + shown(chunk));
      } else if (chunk.episode != receiver.episode) {
        findings.add(chunk.command->time, "recognized with the audio of another channel: " + shown(chunk));
      }
    }
}

void audioOnce(const Observation& observation, Findings& findings) {
  const auto& trace = observation.audio();
  // Analyzers of one source that are made at the same time may be made in any order.
  std::map<std::pair<Channel, std::size_t>, std::size_t> latest;
  std::vector<bool> seen(trace.chunks.size());
  for (const auto& receiver : trace.receivers)
    for (const auto number : receiver.chunks) {
      const auto& chunk = trace.chunks[number];
      if (seen[number]) findings.add(chunk.command->time, "recognized twice: " + shown(chunk));
      seen[number] = true;
      auto& last = latest[{chunk.channel, observation.isLegacy ? 0 : chunk.episode}];
      if (number < last) findings.add(chunk.command->time, "recognized after a later one: " + shown(chunk));
      last = std::max(last, number);
    }
}

void audioUnchanged(const Observation& observation, Findings& findings) {
  const auto& trace = observation.audio();
  for (const auto& receiver : trace.receivers) {
    const bool isComplete = receiver.received == receiver.count("buffers");  // all of them are traced
    if (!isComplete) continue;
    for (std::size_t i = 0; i < receiver.received; ++i) {
      const auto& chunk = trace.chunks[receiver.chunks[i]];
      const bool isChanged =
          observation.isLegacy
              ? std::abs(receiver.record->at("loudness")[i].get<double>() - chunk.loudness) > 1e-9
              : receiver.record->at("frames")[i] != chunk.frames;
      if (isChanged) findings.add(chunk.command->time, "recognized with other samples: " + shown(chunk));
    }
  }
}

void audioWhole(const Observation& observation, Findings& findings) {
  const auto& trace = observation.audio();
  for (const auto& receiver : trace.receivers) {
    if (receiver.chunks.empty() || receiver.episode == std::string::npos) continue;
    const auto& episode = trace.episodes[receiver.episode];
    if (trace.isTouchedByDictation(episode.channel)) continue;
    for (const auto number : episode.chunks) {
      const auto& chunk = trace.chunks[number];
      const bool isInside = receiver.chunks.front() < number && number < receiver.chunks.back();
      if (isInside && chunk.name != 0 && !chunk.isReceived && !trace.isReportedLost(chunk))
        findings.add(chunk.command->time, "lost between others of its utterance: " + shown(chunk));
    }
  }
}

// Returns how many of the episode's chunks after this one were sent by that time.
std::size_t countAfter(const AudioTrace& trace, const Episode& episode, std::size_t number, double time) {
  return static_cast<std::size_t>(std::ranges::count_if(episode.chunks, [&](std::size_t other) {
    return other > number && trace.chunks[other].command->time <= time;
  }));
}

// Returns when the finishing state of a closed task ended: when the next task was made, or when its final was
// written; none if that cannot be seen.
std::optional<double> endOfFinishing(const Observation& observation, const AudioTrace& trace,
                                     const Episode& episode, std::size_t task) {
  const auto next = std::ranges::upper_bound(episode.receivers, task);
  if (next != episode.receivers.end()) return trace.receivers[*next].time("madeAt");
  const double closedAt = *trace.receivers[task].time("endAudioAt");
  for (const auto& event : observation.events)
    if (event.isFinal() && event.channel() == episode.channel && event.time > closedAt &&
        event.time < episode.end && event.event["endpointing"].value("reason", "") != "flush")
      return event.time;
  return std::nullopt;
}

void voiceRecognized(const Observation& observation, Findings& findings) {
  if (!observation.isLegacy) return;
  const auto& trace = observation.audio();
  for (const auto& episode : trace.episodes) {
    if (trace.isTouchedByDictation(episode.channel)) continue;
    for (const auto number : episode.chunks) {
      const auto& chunk = trace.chunks[number];
      if (!chunk.isVoice() || chunk.name == 0 || chunk.isReceived || trace.isReportedLost(chunk)) continue;
      // Only a finishing utterance holds voice back.
      std::optional<std::size_t> closed;
      for (const auto task : episode.receivers) {
        const auto& receiver = trace.receivers[task];
        if (receiver.chunks.front() > number) break;
        const auto closedAt = receiver.time("endAudioAt");
        closed = closedAt && *closedAt <= observation.handledBy(chunk.command->time) ? std::optional(task)
                                                                                     : std::nullopt;
      }
      if (!closed) {
        if (chunk.command->time < episode.end)
          findings.add(chunk.command->time,
                       "voice is lost though no utterance is finishing: " + shown(chunk));
        continue;
      }
      const auto end = endOfFinishing(observation, trace, episode, *closed);
      if (end && countAfter(trace, episode, number, *end) < longestHeldBack)
        findings.add(chunk.command->time, "voice that was held back is lost: " + shown(chunk));
    }
  }
}

void heldBack(const Observation& observation, Findings& findings) {
  if (!observation.isLegacy) return;
  const auto& trace = observation.audio();
  for (const auto& episode : trace.episodes) {
    if (trace.isTouchedByDictation(episode.channel)) continue;
    for (std::size_t i = 1; i < episode.receivers.size(); ++i) {
      const auto& receiver = trace.receivers[episode.receivers[i]];
      const double madeAt = *receiver.time("madeAt");
      const auto isBefore = [&](std::size_t number) {
        return observation.handledBy(trace.chunks[number].command->time) < madeAt;
      };
      const auto isVoice = [&](std::size_t number) {
        return trace.chunks[number].isVoice() || trace.chunks[number].name == 0;
      };
      const auto before = static_cast<std::size_t>(std::ranges::count_if(receiver.chunks, isBefore));
      if (before > longestHeldBack) findings.add(madeAt, std::to_string(before) + " chunks were held back");
      const auto preroll =
          static_cast<std::size_t>(std::ranges::find_if(receiver.chunks, isVoice) - receiver.chunks.begin());
      if (preroll > longestPreroll)
        findings.add(madeAt, std::to_string(preroll) + " quiet chunks open an utterance");
      const auto first = std::ranges::find(episode.chunks, receiver.chunks.front());
      if (preroll >= longestPreroll || first == episode.chunks.begin()) continue;
      const auto& previous = trace.chunks[*std::prev(first)];
      const auto size = receiver.count("buffers") + receiver.count("droppedBuffers");
      if (size > receiver.chunks.size()) continue;  // an untraced chunk may be part of the preroll
      const bool hasOverflown = size >= longestHeldBack;
      if (!previous.isReceived && previous.name != 0 && !hasOverflown && !trace.isReportedLost(previous))
        findings.add(previous.command->time, "missing in the preroll: " + shown(previous));
    }
  }
}

// On the analyzer backend no chunk is dropped: each reaches the analyzer or is reported.
void audioAccounted(const Observation& observation, Findings& findings) {
  if (observation.isLegacy || !observation.mode.empty() || observation.input.endsAt) return;
  const auto& trace = observation.audio();
  std::size_t sent = 0;
  for (const auto& chunk : trace.chunks) sent += chunk.episode == std::string::npos ? 0 : 1;
  std::size_t received = 0;
  for (const auto& receiver : trace.receivers)
    received += receiver.count("buffers") + receiver.count("droppedBuffers");
  std::size_t reported = 0;
  for (const auto& event : observation.events)
    if (event.text("message").starts_with("SpeechAnalyzer input failed: ")) ++reported;
  // An operation of the machine may never end, and audio waits for it.
  const bool mayWait = observation.scenario.machine.dump().find("never") != std::string::npos;
  const auto end = observation.input.commands.empty() ? 0 : observation.input.commands.back().time;
  if (received + reported > sent || (!mayWait && received + reported < sent))
    findings.add(end, std::to_string(sent) + " chunks were sent, but " + std::to_string(received) +
                          " received and " + std::to_string(reported) + " reported as lost");
}

void requestOptions(const Observation& observation, Findings& findings) {
  const auto& trace = observation.audio();
  for (const auto& receiver : trace.receivers) {
    if (receiver.episode == std::string::npos) continue;
    const auto& start = trace.episodes[receiver.episode].start;
    auto phrases = start.vocabulary.value_or(std::vector<std::string>());
    phrases.resize(std::min(phrases.size(), longestVocabulary));
    const auto& record = *receiver.record;
    bool isAsRequested = record.at("contextualStrings") == phrases;
    if (observation.isLegacy)
      isAsRequested = isAsRequested && record.at("locale") == start.locale.value_or("ja-JP") &&
                      record.at("shouldReportPartialResults") == true &&
                      record.at("requiresOnDeviceRecognition") == true;
    if (!isAsRequested) findings.add(start.time, "a recognition has other options than its session");
  }
}

void tasksEnd(const Observation& observation, Findings& findings) {
  if (!observation.isLegacy) return;
  const auto& trace = observation.audio();
  for (const auto& episode : trace.episodes) {
    if (!trace.keepsContract(episode.channel)) continue;
    const Receiver* previous = nullptr;
    for (const auto task : episode.receivers) {
      const auto& receiver = trace.receivers[task];
      const auto endOf = [](const Receiver& of) {
        const auto endedAt = of.time("endedAt");
        return endedAt ? endedAt : of.time("cancelledAt");
      };
      if (previous && endOf(*previous).value_or(episode.end) > *receiver.time("madeAt"))
        findings.add(*receiver.time("madeAt"), "two tasks of a source run at the same time");
      previous = &receiver;
      const bool hasEnded = std::isfinite(episode.end) && episode.end < observation.scenario.until;
      if (hasEnded && !endOf(receiver))
        findings.add(episode.end, "a task still runs after the end of its channel");
    }
  }
}

void analyzersEnd(const Observation& observation, Findings& findings) {
  if (observation.isLegacy || !observation.mode.empty()) return;
  const auto& trace = observation.audio();
  for (const auto& episode : trace.episodes) {
    // At the end of the helper nothing is awaited.
    if (!std::isfinite(episode.end) || episode.end == observation.input.endsAt) continue;
    for (const auto number : episode.receivers) {
      const auto& receiver = trace.receivers[number];
      const bool isCancelled = receiver.time("cancelledAt").has_value();
      const bool isFinalized = receiver.time("finalizedAt").has_value();
      if (isCancelled != episode.isMutedAtEnd || isFinalized == episode.isMutedAtEnd ||
          !receiver.time("inputFinishedAt"))
        findings.add(episode.end, episode.isMutedAtEnd ? "the analyzer of a muted source is not cancelled"
                                                       : "the analyzer of a stopped session is not finished");
    }
  }
}

void probesBounded(const Observation& observation, Findings& findings) {
  constexpr double longest = 2500 + 100;  // ms; 100 for the slices of the wait
  for (const auto& probe : observation.record.received.value("probes", JSON::array())) {
    const double madeAt = probe.at("madeAt");
    const auto& cancelledAt = probe.at("cancelledAt");
    if (!cancelledAt.is_number() || cancelledAt.get<double>() - madeAt > longest)
      findings.add(madeAt, "a probe for Dictation lasts until " + cancelledAt.dump());
  }
}

void buffersBounded(const Observation& observation, Findings& findings) {
  const auto found = observation.record.received.find("audioBuffers");
  if (found == observation.record.received.end()) return;
  const auto& trace = observation.audio();
  const auto time = observation.input.commands.empty() ? 0 : observation.input.commands.back().time;
  if (observation.isLegacy) {
    std::map<Channel, bool> channels;
    for (const auto& chunk : trace.chunks)
      if (chunk.episode != std::string::npos) channels[chunk.channel] = true;
    const auto limit =
        channels.size() * (longestHeldBack + longestPreroll) + 2;  // one in use, one of a probe
    if (const auto most = found->at("most").get<std::size_t>(); most > limit)
      findings.add(time, std::to_string(most) + " buffers of audio are held, but the rules allow " +
                             std::to_string(limit));
    return;
  }
  if (observation.input.endsAt || !observation.mode.empty()) return;
  const bool mayWait = observation.scenario.machine.dump().find("never") != std::string::npos;
  if (const auto left = found->at("left").get<std::size_t>(); left > 0 && !mayWait)
    findings.add(time, std::to_string(left) + " buffers of audio are held though none waits");
}

}  // namespace

std::vector<Invariant> audioInvariants() {
  return {
      {"audio-source",
       "A recognition receives the audio of one source, from its start or unmuting to its stop or muting, "
       "and "
       "no audio of a muted source, of an unknown session, or of an invalid payload.",
       audioSource},
      {"audio-once",
       "A chunk is recognized at most once, and the chunks of a source in the order of their lines.",
       audioOnce},
      {"audio-unchanged", "A recognition receives the samples that the host sent.", audioUnchanged},
      {"audio-whole", "No chunk is lost within an utterance.", audioWhole},
      {"voice-recognized",
       "Voice reaches a recognition, unless an error reports its loss, Dictation is off, or it is held back "
       "while an utterance is finishing and is not among the newest 40 chunks.",
       voiceRecognized},
      {"held-back",
       "At most 40 chunks are held back, and the newest 2 quiet chunks precede the voice that opens an "
       "utterance.",
       heldBack},
      {"audio-accounted",
       "On the analyzer backend every chunk of a started source that is not muted reaches the analyzer or is "
       "reported as an error.",
       audioAccounted},
      {"request-options", "A recognition has the locale and the first 100 phrases of its session.",
       requestOptions},
      {"tasks-end",
       "A source has one task at a time, and none runs after the source's stop or muting, while the "
       "recognizer "
       "keeps its contract.",
       tasksEnd},
      {"analyzers-end",
       "The analyzer of a source is cancelled when it is muted, and finished when its session stops.",
       analyzersEnd},
      {"probes-bounded", "A probe for Dictation holds up the commands for 2.5 s at most.", probesBounded},
      {"buffers-bounded",
       "The legacy backend holds no more audio than 42 chunks for each source; the analyzer backend none "
       "that "
       "waits for nothing.",
       buffersBounded}};
}

}  // namespace palaver
