// The invariants of the conversation: of lines, events, utterances and answers to commands.
#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <regex>
#include <set>

#include "simulator/scenario/AudioTrace.h"

namespace palaver {

namespace {

// --- Lines and events ---

// Returns why a line is not written as events are, or none.
std::optional<std::string> malformation(const std::string& line) {
  std::vector<std::string> lastKeys;  // of the objects that enclose the place
  bool isSorted = true;
  const auto watch = [&](int, JSON::parse_event_t event, const JSON& value) {
    if (event == JSON::parse_event_t::object_start) lastKeys.emplace_back();
    if (event == JSON::parse_event_t::object_end) lastKeys.pop_back();
    if (event == JSON::parse_event_t::key) {
      const auto key = value.get<std::string>();
      isSorted = isSorted && (lastKeys.back().empty() || lastKeys.back() < key);
      lastKeys.back() = key;
    }
    if (event == JSON::parse_event_t::value && value.is_null()) isSorted = false;
    return true;
  };
  const auto value = JSON::parse(line, watch, false);
  if (!value.is_object()) return "the line is not a JSON object";
  if (!isSorted) return "the keys are not sorted, or repeated, or a value is null";
  bool inString = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '"') inString = !inString;
    if (!inString && std::string_view(" \t\r").find(line[i]) != std::string_view::npos)
      return "the line holds white space between tokens";
    if (!inString || line[i] != '\\') continue;
    const char escaped = line[++i];
    const bool isControl = escaped == 'u' && line.compare(i + 1, 2, "00") == 0 && line[i + 3] <= '7';
    if (!isControl && std::string_view("\"\\bfnrt").find(escaped) == std::string_view::npos)
      return "the line holds an escape that is not needed";
  }
  return std::nullopt;
}

void lineForm(const Observation& observation, Findings& findings) {
  for (const auto& line : observation.record.output.lines)
    if (const auto why = malformation(line.text)) findings.add(line.time, *why + ": " + line.text);
  if (!observation.record.output.rest.empty())
    findings.add(observation.record.output.lines.empty() ? 0 : observation.record.output.lines.back().time,
                 "the last line lacks its line feed: " + observation.record.output.rest);
}

void eventForm(const Observation& observation, Findings& findings) {
  for (const auto& event : observation.events)
    if (const auto why = ProtocolDescription::shared().mismatch(event.event))
      findings.add(event.time, *why + ": " + event.line);
}

void errorOutput(const Observation& observation, Findings& findings) {
  for (const auto& line : observation.record.errorOutput.lines) {
    const bool isTrace = line.text.starts_with("[stt-debug] ");
    if (isTrace && observation.scenario.settings.environment.contains("PALAVER_STT_DEBUG")) continue;
    if (!line.text.starts_with("Failed to encode helper event: "))
      findings.add(line.time, "an unknown line on standard error: " + line.text);
  }
}

void statusFirst(const Observation& observation, Findings& findings) {
  if (!observation.mode.empty()) return;
  if (observation.events.empty() || observation.events.front().type != "helper.status")
    findings.add(0, "the first line is no helper.status");
}

void oneBackend(const Observation& observation, Findings& findings) {
  const std::string wanted = observation.isLegacy ? "sf-speech-recognizer" : "speech-analyzer";
  for (const auto& event : observation.events)
    if (event.event.contains("implementation") && event.text("implementation") != wanted)
      findings.add(event.time, "the implementation is not " + wanted + ": " + event.line);
}

void modelCheck(const Observation& observation, Findings& findings) {
  if (observation.isLegacy || !observation.mode.empty()) return;
  int checks = 0;
  for (std::size_t i = 0; i < observation.events.size(); ++i) {
    const auto& event = observation.events[i];
    const auto status = event.text("status");
    const bool isFirstStatus = status == "checking-model" || status == "unavailable";
    if (event.type == "helper.status" && isFirstStatus != (i == 0))
      findings.add(event.time, "a status of the wrong kind: " + event.line);
    const bool isCheck = (event.type == "helper.status" && i > 0) || event.code == "japanese-unsupported";
    if (isCheck && ++checks > 1)
      findings.add(event.time, "a second result of the model check: " + event.line);
  }
}

void errorCode(const Observation& observation, Findings& findings) {
  const std::string backend = observation.isLegacy ? "legacy" : "analyzer";
  for (const auto& event : observation.events) {
    if (!event.isError()) continue;
    const auto& errors = ProtocolDescription::shared().errorsOf(event.text("message"));
    if (errors.size() != 1) {
      findings.add(event.time,
                   "an error text has " + std::to_string(errors.size()) + " codes: " + event.line);
    } else if (std::ranges::find(errors.front()->backends, backend) == errors.front()->backends.end()) {
      findings.add(event.time, "an error of the other backend: " + event.line);
    }
  }
}

void errorNames(const Observation& observation, Findings& findings) {
  for (const auto& event : observation.events)
    for (const auto* const error : ProtocolDescription::shared().errorsOf(event.text("message"))) {
      if (!event.isError()) continue;
      const auto& names = observation.mode.empty() ? error->names : "no";
      if ((names == "no" && (event.sessionId || event.source)) ||
          (names == "yes" && !(event.sessionId && event.source)))
        findings.add(event.time, "an error names too much or too little: " + event.line);
    }
}

void statusFollows(const Observation& observation, Findings& findings) {
  if (!observation.isLegacy) return;
  const ObservedEvent* awaiting = nullptr;  // the event that a status must follow
  for (const auto& event : observation.events) {
    if (event.code == "invalid-command") continue;  // from another thread
    if (awaiting && event.type != "helper.status")
      findings.add(event.time, "no status follows " + awaiting->line);
    const bool isUnavailable = event.type == "session.ready" && event.event.value("available", true) == false;
    awaiting = isUnavailable || event.code == "dictation-disabled" ? &event : nullptr;
  }
  if (awaiting) findings.add(awaiting->time, "no status follows " + awaiting->line);
}

void dictationOnce(const Observation& observation, Findings& findings) {
  std::set<Channel> reported;
  for (const auto& event : observation.events) {
    if (event.type == "helper.status" && event.text("dictation") != "disabled") reported.clear();
    if (event.type == "session.ready" || event.type == "session.stopped")
      std::erase_if(reported, [&](const Channel& channel) { return channel.first == event.sessionId; });
    if (event.code == "dictation-disabled" && !reported.insert(event.channel()).second)
      findings.add(event.time, "reported twice: " + event.line);
  }
}

// --- Sessions and sources ---

void readyFirst(const Observation& observation, Findings& findings) {
  if (!observation.mode.empty()) return;
  std::set<Channel> ready;
  for (const auto& event : observation.events) {
    const Channel channel(event.sessionId.value_or(""),
                          observation.isLegacy ? "" : event.source.value_or(""));
    if (event.type == "session.ready") ready.insert(channel);
    if (event.isTranscript() && !ready.contains(channel))
      findings.add(event.time, "a transcript before its session.ready: " + event.line);
  }
}

void stoppedSilent(const Observation& observation, Findings& findings) {
  if (!observation.isLegacy) return;
  std::set<std::string> stopped;
  for (const auto& event : observation.events) {
    const auto session = event.sessionId.value_or("");
    if (event.type == "session.ready") stopped.erase(session);
    if (event.type == "session.stopped" && !stopped.insert(session).second)
      findings.add(event.time, "stopped twice: " + event.line);
    if (!event.sessionId || !stopped.contains(session)) continue;
    if (event.isTranscript()) findings.add(event.time, "a transcript of a stopped session: " + event.line);
    if (event.isError() && event.code != "session-unknown" && event.code != "unsupported-command")
      findings.add(event.time, "an error of a stopped session: " + event.line);
  }
}

// Returns whether the host may have started the session between these times, which unmutes its sources.
bool isStarted(const Observation& observation, const std::string& session, double since, double until) {
  return std::ranges::any_of(observation.input.commands, [&](const HostCommand& command) {
    return command.type == "session.start" && command.sessionId == session && command.time >= since &&
           command.time <= until;
  });
}

void mutedSilent(const Observation& observation, Findings& findings) {
  std::map<Channel, double> muted;  // since, ms
  std::set<std::string> stopped;    // sessions
  std::map<Channel, double> readyAt;
  for (const auto& event : observation.events) {
    const auto channel = event.channel();
    if (event.type == "source.suppressed") {
      if (event.event.value("suppressed", false)) {
        muted.try_emplace(channel, event.time);
      } else {
        muted.erase(channel);
      }
    }
    const bool isLegacyReady = event.type == "session.ready" && observation.isLegacy;
    if (isLegacyReady || event.type == "session.stopped")
      std::erase_if(muted, [&](const auto& entry) { return entry.first.first == event.sessionId; });
    if (event.type == "session.ready") readyAt[channel] = event.time;
    if (event.type == "session.stopped") stopped.insert(channel.first);
    const auto since = muted.find(channel);
    if (since == muted.end()) continue;
    // The analyzer's channel is cancelled beside the command loop, as soon as it exists. Channels of a
    // stopped session may still finish. Only the legacy backend answers the start that unmutes.
    const bool isCancelling =
        !observation.isLegacy &&
        (stopped.contains(channel.first) || event.time == since->second || event.time == readyAt[channel] ||
         isStarted(observation, channel.first, since->second, event.time));
    const bool isOfRecognition =
        event.isTranscript() || event.code == "recognition-failed" || event.code == "result-stream-failed";
    if (isOfRecognition && !isCancelling) findings.add(event.time, "a muted source speaks: " + event.line);
  }
}

void cancelledSilent(const Observation& observation, Findings& findings) {
  if (!observation.isLegacy) return;
  std::map<std::string, Channel> seen;  // source by utterance
  std::set<std::string> cancelled;      // utterances
  for (const auto& event : observation.events) {
    if (event.isTranscript()) {
      const auto id = event.text("utteranceId");
      if (cancelled.contains(id)) findings.add(event.time, "an event of a cancelled channel: " + event.line);
      seen.try_emplace(id, event.channel());
    }
    const bool isMuted = event.type == "source.suppressed" && event.event.value("suppressed", false);
    const bool isStopped = event.type == "session.stopped";
    for (const auto& [id, channel] : seen)
      if (isMuted ? channel == event.channel() : isStopped && channel.first == event.sessionId)
        cancelled.insert(id);
  }
}

// --- Utterances ---

void oneFinal(const Observation& observation, Findings& findings) {
  std::set<std::string> seen;
  for (const auto& event : observation.events) {
    if (!event.isFinal()) continue;
    const auto id = event.text("utteranceId");
    // The system may repeat a start, and does so for starts that it does not know.
    if (!observation.isLegacy) continue;
    if (!seen.insert(id).second) findings.add(event.time, "a second final: " + event.line);
  }
}

void finalLast(const Observation& observation, Findings& findings) {
  if (!observation.isLegacy) return;
  std::set<std::string> closed;
  for (const auto& event : observation.events) {
    if (event.isFinal()) closed.insert(event.text("utteranceId"));
    if (event.isPartial() && closed.contains(event.text("utteranceId")))
      findings.add(event.time, "a partial after its final: " + event.line);
  }
}

void oneUtteranceOneSource(const Observation& observation, Findings& findings) {
  std::map<std::string, Channel> channels;
  for (const auto& event : observation.events)
    if (event.isTranscript() &&
        channels.try_emplace(event.text("utteranceId"), event.channel()).first->second != event.channel())
      findings.add(event.time, "an utterance of two sources: " + event.line);
}

// Calls `onOpen` for each utterance that has partials but no final when its session stops, when another one
// begins, or when the helper ends.
using OpenUtterances = std::map<Channel, const ObservedEvent*>;
void followUtterances(
    const Observation& observation,
    const std::function<void(const ObservedEvent& open, const ObservedEvent* now)>& onOpen) {
  OpenUtterances open;
  for (const auto& event : observation.events) {
    if (event.isTranscript()) {
      const auto current = open.try_emplace(event.channel(), &event).first;
      if (current->second->text("utteranceId") != event.text("utteranceId")) {
        onOpen(*current->second, &event);
        current->second = &event;
      }
      if (event.isFinal()) open.erase(current);
    } else if (event.type == "source.suppressed" && event.event.value("suppressed", false)) {
      open.erase(event.channel());  // what was not final is dropped
    } else if (event.type == "session.stopped") {
      for (const auto& [channel, utterance] : open)
        if (channel.first == event.sessionId) onOpen(*utterance, &event);
      std::erase_if(open, [&](const auto& entry) { return entry.first.first == event.sessionId; });
    }
  }
  if (observation.record.exitStatus)
    for (const auto& [channel, utterance] : open) onOpen(*utterance, nullptr);
}

void sharedId(const Observation& observation, Findings& findings) {
  if (!observation.isLegacy || observation.hasUnencodableEvents) return;
  followUtterances(observation, [&](const ObservedEvent& open, const ObservedEvent* now) {
    if (now && now->isTranscript())
      findings.add(now->time, "another utterance begins while this one is open: " + open.line);
  });
}

void wordsFlushed(const Observation& observation, Findings& findings) {
  if (!observation.isLegacy || observation.hasUnencodableEvents) return;
  followUtterances(observation, [&](const ObservedEvent& open, const ObservedEvent* now) {
    if (!now || !now->isTranscript())
      findings.add(now ? now->time : observation.input.endsAt.value_or(open.time),
                   "the words of an utterance are lost at its end: " + open.line);
  });
}

void utteranceId(const Observation& observation, Findings& findings) {
  static const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  static const std::regex epochAndStart("[0-9A-F]{8}-[0-9]+");
  for (const auto& event : observation.events) {
    if (!event.isTranscript()) continue;
    const auto id = event.text("utteranceId");
    const auto prefix = event.sessionId.value_or("") + "-" + event.source.value_or("") + "-";
    const bool isValid = observation.isLegacy ? std::regex_match(id, uuid)
                                              : id.starts_with(prefix) &&
                                                    std::regex_match(id.substr(prefix.size()), epochAndStart);
    if (!isValid) findings.add(event.time, "an utterance id of another form: " + event.line);
  }
}

void textTrimmed(const Observation& observation, Findings& findings) {
  constexpr std::string_view whiteSpace = " \t\r\n";
  for (const auto& event : observation.events) {
    if (!event.isTranscript()) continue;
    const auto text = event.text("text");
    if (text.empty() || whiteSpace.find(text.front()) != std::string_view::npos ||
        whiteSpace.find(text.back()) != std::string_view::npos)
      findings.add(event.time, "a text that is not trimmed: " + event.line);
  }
}

void times(const Observation& observation, Findings& findings) {
  for (const auto& event : observation.events) {
    if (!event.isFinal()) continue;
    const double ended = event.number("speechEndedAt");
    // The legacy recognizer's own segments may run backwards; the analyzer's ranges are put in order.
    if (!observation.isLegacy && ended < event.number("startedAt"))
      findings.add(event.time, "an utterance ends before it starts: " + event.line);
    if (event.number("latencyMs") != std::max(0.0, event.number("transcribedAt") - ended))
      findings.add(event.time, "latencyMs is not transcribedAt − speechEndedAt: " + event.line);
  }
}

void provider(const Observation& observation, Findings& findings) {
  const std::string wanted = observation.isLegacy ? "apple-sfspeech" : "apple-speech-analyzer";
  for (const auto& event : observation.events)
    if (event.isFinal() && event.event.contains("endpointing") &&
        event.event["endpointing"].value("provider", "") != wanted)
      findings.add(event.time, "endpointing of another backend: " + event.line);
}

void clockOrder(const Observation& observation, Findings& findings) {
  for (const auto& event : observation.events)
    for (const auto* const key : {"at", "helperAt", "transcribedAt"}) {
      const auto shift = observation.clockShift(event.time);
      if (!shift || !event.event.contains(key)) continue;
      // In the order in which the clock computes it.
      const double now = observation.scenario.settings.startsAt + event.time + *shift;
      if (event.number(key) != now)
        findings.add(event.time, std::string(key) + " is not the helper's clock: " + event.line);
    }
}

// --- Answers ---

// An answer as text: its type and the values that the command determines.
std::string answer(const std::string& kind, const std::vector<std::optional<std::string>>& values) {
  std::string text = kind;
  for (const auto& value : values) text += " " + (value ? JSON(*value).dump() : "none");
  return text;
}

std::string numberText(double number) {
  return JSON(number + 0.0).dump();  // 0 for -0
}

// The errors of one chunk of the legacy backend that depend on the machine.
constexpr std::string_view chunkErrors[]{"audio-format-unavailable", "audio-buffer-unavailable",
                                         "permission-missing", "locale-unsupported", "model-missing"};

// Returns the answer that an event is, or none for an event that answers no command.
std::optional<std::string> answerOf(const ObservedEvent& event, bool isLegacy) {
  const auto names = [&](const std::string& kind) { return answer(kind, {event.sessionId, event.source}); };
  if (event.type == "pong") return answer("pong", {numberText(event.number("sentAt"))});
  if (event.type == "session.stopped") return answer("session.stopped", {event.sessionId});
  if (event.type == "session.ready" && isLegacy)
    return answer("session.ready", {event.sessionId, event.text("locale")});
  if (event.type == "source.suppressed")
    return names(event.event.value("suppressed", false) ? "muted" : "unmuted");
  if (!event.isError()) return std::nullopt;
  if (event.code.ends_with("-incomplete")) return answer(event.code, {});
  if (event.code == "unsupported-command") return names(event.text("message"));
  if (!isLegacy) return std::nullopt;
  if (event.code == "session-unknown" || event.code.starts_with("payload-")) return names(event.code);
  if (std::ranges::find(chunkErrors, event.code) != std::end(chunkErrors)) return names("chunk-error");
  return std::nullopt;
}

struct ExpectedAnswer {
  double time;  // arrival of the command
  std::string text;
  bool isOptional = false;
};

std::vector<ExpectedAnswer> expectedAnswers(const Observation& observation) {
  const bool isLegacy = observation.isLegacy;
  std::set<Channel> dictationOff;  // sources whose audio may have been dropped before it was looked at
  for (const auto& event : observation.events)
    if (event.code == "dictation-disabled") dictationOff.insert(event.channel());
  std::set<std::string> open;
  std::set<Channel> muted;
  std::vector<ExpectedAnswer> expected;
  for (const auto& command : observation.input.commands) {
    const auto add = [&](std::string text, bool isOptional = false) {
      expected.push_back({command.time, std::move(text), isOptional});
    };
    const auto session = command.sessionId.value_or("");
    const Channel channel(session, command.source.value_or(""));
    if (!command.isComplete()) {
      auto code = command.type + "-incomplete";
      std::ranges::replace(code, '.', '-');
      add(answer(code, {}));
    } else if (command.type == "ping") {
      add(answer("pong", {numberText(command.sentAt.value_or(0))}));
    } else if (command.type == "session.start" || command.type == "session.stop") {
      std::erase_if(muted, [&](const Channel& other) { return other.first == session; });
      if (open.erase(session) > 0) add(answer("session.stopped", {session}));
      if (command.type == "session.stop") continue;
      open.insert(session);
      if (isLegacy) add(answer("session.ready", {session, command.locale.value_or("ja-JP")}));
    } else if (command.type == "source.suppress") {
      add(answer(*command.suppressed ? "muted" : "unmuted", {session, command.source}));
      if (*command.suppressed) {
        muted.insert(channel);
      } else {
        muted.erase(channel);
      }
    } else if (command.type == "audio") {
      if (!isLegacy) continue;
      if (!open.contains(session)) {
        add(answer("session-unknown", {session, command.source}));
      } else if (!muted.contains(channel)) {
        const auto payload = decodePayload(*command.pcmBase64);
        add(answer(payload.error.value_or("chunk-error"), {session, command.source}),
            !payload.error || dictationOff.contains(channel));
      }
    } else if (command.type != "shutdown") {
      add(answer("Unsupported command type: " + command.type, {command.sessionId, command.source}));
    }
  }
  return expected;
}

void answers(const Observation& observation, Findings& findings) {
  if (!observation.mode.empty()) return;
  const auto expected = expectedAnswers(observation);
  auto next = expected.begin();
  for (const auto& event : observation.events) {
    const auto text = answerOf(event, observation.isLegacy);
    if (!text) continue;
    while (next != expected.end() && next->isOptional &&
           (next->text != *text || observation.handledBy(next->time) < event.time))
      ++next;
    if (next == expected.end()) return findings.add(event.time, "no command asked for " + event.line);
    if (next->text != *text)
      return findings.add(event.time, event.line + " is written where this is due: " + next->text);
    if (event.time < next->time || event.time > observation.handledBy(next->time))
      return findings.add(event.time, "the answer is not written when its command is handled: " + event.line);
    ++next;
  }
  while (next != expected.end() && next->isOptional) ++next;
  if (next != expected.end()) findings.add(observation.handledBy(next->time), "no answer: " + next->text);
}

void undecodableLines(const Observation& observation, Findings& findings) {
  if (!observation.mode.empty()) return;
  const auto& lines = observation.input.undecodable;
  std::size_t count = 0;
  for (const auto& event : observation.events) {
    if (event.code != "invalid-command") continue;
    if (count == lines.size() || event.time < lines[count])
      return findings.add(event.time, "no line causes this error: " + event.line);
    ++count;
  }
  if (count < lines.size()) findings.add(lines[count], "a line that is no command causes no error");
}

// Each channel of the analyzer backend is announced at most once.
void readyOnce(const Observation& observation, Findings& findings) {
  if (observation.isLegacy || !observation.mode.empty()) return;
  std::map<Channel, std::vector<double>> created;
  std::set<std::string> open;
  std::set<Channel> muted;
  for (const auto& command : observation.input.commands) {
    if (!command.isComplete() || !command.sessionId) continue;
    const auto& session = *command.sessionId;
    const Channel channel(session, command.source.value_or(""));
    if (command.type == "session.start" || command.type == "session.stop") {
      std::erase_if(muted, [&](const Channel& other) { return other.first == session; });
      open.erase(session);
    }
    if (command.type == "session.start") {
      open.insert(session);
      for (const auto* const source : {"remote", "self"}) created[{session, source}].push_back(command.time);
    }
    if (command.type != "source.suppress") continue;
    if (*command.suppressed) {
      muted.insert(channel);
    } else if (muted.erase(channel) > 0 && open.contains(session)) {
      created[channel].push_back(command.time);
    }
  }
  std::map<Channel, std::size_t> ready;
  for (const auto& event : observation.events) {
    if (event.type != "session.ready") continue;
    const auto& times = created[event.channel()];
    const auto count = ready[event.channel()]++;
    if (count >= times.size() || times[count] > event.time)
      findings.add(event.time, "a source is ready that was not started: " + event.line);
  }
}

// --- The end ---

void modeOutput(const Observation& observation, Findings& findings) {
  if (observation.mode.empty()) return;
  static const std::map<std::string, std::regex> patterns{
      {"--health", std::regex("(helper\\.status )?")},
      {"--authorize", std::regex("(helper\\.authorization )?")},
      {"--install-assets", std::regex("(helper\\.model ){0,3}|(helper\\.model ){0,2}helper\\.error ")},
      {"--research-transcribe-file", std::regex("(transcript\\.(partial|final) )*(helper\\.error ){0,2}"
                                                "|(transcript\\.(partial|final) )*research\\.complete ")}};
  std::string types;
  for (const auto& event : observation.events) types += event.type + " ";
  if (!std::regex_match(types, patterns.at(observation.mode)))
    findings.add(0, observation.mode + " writes: " + types);
  if (observation.record.exitStatus && types.empty()) findings.add(0, observation.mode + " writes nothing");
}

void exitStatus(const Observation& observation, Findings& findings) {
  const auto& status = observation.record.exitStatus;
  if (observation.mode.empty()) {
    const auto& asked = observation.input.endsAt;
    const double time = asked.value_or(0);
    if (status && !asked) findings.add(time, "the helper ends without being asked to");
    if (status && *status != 0) findings.add(time, "the exit status is " + std::to_string(*status));
    if (asked && !status) findings.add(time, "the helper does not end");
    return;
  }
  if (!status) return;  // waits for an answer of the machine
  const auto* const last = observation.events.empty() ? nullptr : &observation.events.back();
  int expected = 0;
  if (last && last->isError()) expected = last->code == "research-usage" ? 2 : 1;
  if (last && observation.mode == "--install-assets" && last->text("status") != "installed") expected = 1;
  if (last && observation.mode == "--health" && last->text("status") == "unavailable") expected = 1;
  if (*status != expected)
    findings.add(last ? last->time : 0, "the exit status is " + std::to_string(*status));
}

}  // namespace

std::vector<Invariant> conversationInvariants() {
  return {
      {"line-form", nullptr, lineForm},
      {"event-form", "Every event has the keys, types and values of the schema and no others.", eventForm},
      {"error-output", "Standard error holds only the documented lines.", errorOutput},
      {"mode-output", nullptr, modeOutput},
      {"status-first", nullptr, statusFirst},
      {"one-backend", nullptr, oneBackend},
      {"model-check", nullptr, modelCheck},
      {"error-code", nullptr, errorCode},
      {"error-names", nullptr, errorNames},
      {"status-follows", nullptr, statusFollows},
      {"dictation-once", nullptr, dictationOnce},
      {"ready-first", nullptr, readyFirst},
      {"ready-once", "A source is announced as ready once for each time that it is started or unmuted.",
       readyOnce},
      {"stopped-silent", nullptr, stoppedSilent},
      {"muted-silent",
       "A muted source has no transcript and no error of its recognition until it is unmuted or its session "
       "is started again. On the analyzer backend from when its channel exists, unless the session was "
       "stopped before.",
       mutedSilent},
      {"cancelled-silent",
       "On the legacy backend no transcript of an utterance follows the muting of its source or the end of "
       "its session.",
       cancelledSilent},
      {"one-final", nullptr, oneFinal},
      {"final-last", nullptr, finalLast},
      {"one-utterance-one-source", nullptr, oneUtteranceOneSource},
      {"shared-id", nullptr, sharedId},
      {"words-flushed",
       "On the legacy backend words are not lost at an end: an utterance with partials has its final "
       "before session.stopped, and before the helper ends.",
       wordsFlushed},
      {"utterance-id", nullptr, utteranceId},
      {"text-trimmed", nullptr, textTrimmed},
      {"times", nullptr, times},
      {"provider", nullptr, provider},
      {"clock-order", nullptr, clockOrder},
      {"answers", nullptr, answers},
      {"undecodable-lines", nullptr, undecodableLines},
      {"exit-status", nullptr, exitStatus}};
}

}  // namespace palaver
