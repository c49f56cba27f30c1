#include "simulator/scenario/Conversation.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

#include "core/Base64Encoding.h"
#include "simulator/scenario/EventPattern.h"
#include "simulator/scenario/SyntheticAudio.h"

namespace palaver {

namespace {

// Limits of the audio steps of a scenario together, so that a wrong number does not fill the memory.
constexpr double maxAudioFrames = 16000.0 * 60 * 60;  // an hour
constexpr std::int64_t maxAudioCommands = 100'000;

class ConversationReader {
 public:
  ConversationReader(const JSON& templates, Scenario& scenario)
      : templates_(templates), scenario_(scenario) {}

  void readStep(const JSON& value, std::size_t number, const std::string& where);

 private:
  void send(double time, std::string bytes) {
    scenario_.actions.push_back({time, HostBytes{std::move(bytes)}});
  }
  JSON expanded(const JSON& value, double time, const std::string& where) const;

  void readHost(const JSON& value, const std::string& where);
  void readBytes(const std::string& digits, const std::string& where);
  void readAudio(const JSON& value, const std::string& where);
  void readGroup(const JSON& events, std::size_t step, const std::string& where);

  const JSON& templates_;
  Scenario& scenario_;
  double time_ = 0;
  double audioFrames_ = 0;  // of all audio commands
  std::int64_t audioCommands_ = 0;
  std::map<std::pair<std::string, std::string>, std::int64_t> sequences_;  // by session and source
};

// Expands a template name, or an object derived from one with "$as", and resolves its times.
JSON ConversationReader::expanded(const JSON& value, double time, const std::string& where) const {
  const auto named = [&](const JSON& name) {
    if (!name.is_string() || !templates_.contains(name.get<std::string>()))
      throw FileError(where, "there is no template " + name.dump());
    return templates_.at(name.get<std::string>());
  };
  JSON result = value;
  if (value.is_string()) {
    result = named(value);
  } else if (value.is_object() && value.contains("$as")) {
    result = named(value.at("$as"));
    JSON changes = value;
    changes.erase("$as");
    result.merge_patch(changes);
  }
  if (!result.is_object()) throw FileError(where, "must be an object or the name of a template");
  return withTimes(result, scenario_.settings.startsAt, time, where);
}

void ConversationReader::readHost(const JSON& value, const std::string& where) {
  std::string lines;
  const auto add = [&](const JSON& command) { lines += expanded(command, time_, where).dump() + "\n"; };
  if (value.is_array()) {
    for (const auto& command : value) add(command);
  } else {
    add(value);
  }
  send(time_, std::move(lines));
}

void ConversationReader::readBytes(const std::string& digits, const std::string& where) {
  std::string bytes;
  for (std::size_t i = 0; i < digits.size();) {
    if (digits[i] == ' ') {
      ++i;
      continue;
    }
    const auto byte = digits.substr(i, 2);
    if (byte.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos || byte.size() != 2)
      throw FileError(where, "must be pairs of hexadecimal digits");
    bytes += static_cast<char>(std::stoi(byte, nullptr, 16));
    i += 2;
  }
  send(time_, std::move(bytes));
}

void ConversationReader::readAudio(const JSON& value, const std::string& where) {
  static const JSON voice{{"rms", 0.1}}, quiet{{"rms", 0}};
  ObjectReader reader(value == "voice" ? voice : value == "quiet" ? quiet : value, where);
  const auto sessionId = reader.text("sessionId").value_or("a");
  const auto source = reader.text("source").value_or("remote");
  const double every = reader.number("every").value_or(100);
  const auto times = reader.wholeNumber("times").value_or(1);
  const auto sequence = reader.wholeNumber("sequence");
  const auto firstSample = reader.wholeNumber("firstSample");
  const auto* const capturedAt = reader.find("capturedAt");
  const double frames = reader.number("frames").value_or(reader.number("ms").value_or(100) * 16);
  const double rms = reader.number("rms").value_or(0.1);
  const auto* const exact = reader.array("samples");
  reader.finish();
  if (frames < 0 || frames != std::floor(frames)) reader.fail("the audio must hold whole frames");
  if (!(rms >= 0 && rms <= 0.99)) reader.fail("rms must be from 0 to 0.99");
  if (!(every >= 0) || times < 1) reader.fail("every or times is wrong");
  audioFrames_ += frames * static_cast<double>(times);
  audioCommands_ += std::min(times, maxAudioCommands + 1);
  if (audioFrames_ > maxAudioFrames) reader.fail("the audio of the scenario is longer than an hour");
  if (audioCommands_ > maxAudioCommands)
    reader.fail("the scenario has more than " + std::to_string(maxAudioCommands) + " audio commands");

  auto samples = samplesOfLoudness(exact ? 0 : rms, static_cast<std::size_t>(frames));
  if (exact)
    for (std::size_t i = 0; i < exact->size(); ++i) {
      if (i == samples.size()) samples.push_back(0);
      const auto& sample = exact->at(i);
      if (!sample.is_number_integer() || sample < -32768 || sample > 32767)
        throw FileError(reader.where("samples"), "must hold whole numbers of 16 bits");
      samples[i] = sample.get<std::int16_t>();
    }
  auto& next = sequences_[{sessionId, source}];
  if (sequence) next = *sequence;
  for (std::int64_t i = 0; i < times; ++i) {
    const double sinceFirst = static_cast<double>(i) * every;
    const double time = time_ + sinceFirst;
    if (firstSample && !samples.empty()) samples[0] = static_cast<std::int16_t>(*firstSample + i);
    JSON command{{"type", "audio"},    {"sessionId", sessionId}, {"source", source},
                 {"sequence", next++}, {"capturedAt", "@now"},   {"pcmBase64", encodePCM(samples)}};
    if (capturedAt) command["capturedAt"] = *capturedAt;
    command = withTimes(command, scenario_.settings.startsAt, time, where);
    if (capturedAt && command["capturedAt"].is_number() && *capturedAt != "@now")
      command["capturedAt"] = command["capturedAt"].get<double>() + sinceFirst;
    send(time, command.dump() + "\n");
  }
}

void ConversationReader::readGroup(const JSON& events, std::size_t step, const std::string& where) {
  if (events.size() < 2 || events.size() > 8) throw FileError(where, "must hold from 2 to 8 events");
  for (const auto& event : events)
    scenario_.output.push_back({time_, expanded(event, time_, where), "", step});
  scenario_.output[scenario_.output.size() - events.size()].groupSize = events.size();
}

void ConversationReader::readStep(const JSON& value, std::size_t number, const std::string& where) {
  ObjectReader reader(value, where);
  const auto at = reader.number("at");
  const auto after = reader.number("after");
  if (at && after) reader.fail("has both at and after");
  const double time = at ? *at : time_ + after.value_or(0);
  if (time < time_) reader.fail("is earlier than the step before it");
  time_ = time;

  int actions = 0;
  const auto has = [&](const char* key) {
    const auto* const found = reader.find(key);
    if (found) ++actions;
    return found;
  };
  const auto textOf = [&](const char* key) { return reader.text(key).value(); };
  if (const auto* const host = has("host")) readHost(*host, reader.where("host"));
  if (has("line")) send(time_, textOf("line") + "\n");
  if (has("text")) send(time_, textOf("text"));
  if (has("bytes")) readBytes(textOf("bytes"), reader.where("bytes"));
  if (const auto* const audio = has("audio")) readAudio(*audio, reader.where("audio"));
  if (has("closeInput")) {
    if (!*reader.boolean("closeInput")) reader.fail("closeInput must be true");
    scenario_.actions.push_back({time_, EndOfInput{}});
  }
  for (const auto* const key : {"recognizer", "analyzer", "platform"})
    if (const auto* const step = has(key))
      scenario_.actions.push_back({time_, readMachineStep(key, *step, reader.where(key))});
  if (const auto* const out = has("out"))
    scenario_.output.push_back({time_, expanded(*out, time_, reader.where("out")), "", number});
  if (has("outInAnyOrder")) readGroup(*reader.array("outInAnyOrder"), number, reader.where("outInAnyOrder"));
  if (has("outLine")) scenario_.output.push_back({time_, nullptr, textOf("outLine"), number});
  if (has("errorLine")) scenario_.errorOutput.push_back({time_, nullptr, textOf("errorLine"), number});
  reader.finish();
  if (actions != 1)
    reader.fail(
        "must hold exactly one of host, line, text, bytes, audio, closeInput, recognizer, "
        "analyzer, platform, out, outInAnyOrder, outLine, errorLine");
}

}  // namespace

void readConversation(const JSON& steps, const JSON& templates, Scenario& scenario) {
  ConversationReader reader(templates, scenario);
  for (std::size_t i = 0; i < steps.size(); ++i)
    reader.readStep(steps[i], i, "conversation[" + std::to_string(i) + "]");
}

}  // namespace palaver
