#include "simulator/explore/World.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/Base64Encoding.h"
#include "simulator/explore/Random.h"

namespace palaver {

namespace {

constexpr double settling = 60'000;  // ms after the last step, in which everything that is due happens

// How much a party keeps to its contract.
enum class Manner { valid, sloppy, hostile };

Manner chooseManner(Random& random) {
  const auto choice = random.below(10);
  return choice < 5 ? Manner::valid : choice < 8 ? Manner::sloppy : Manner::hostile;
}

// --- The machine
// ------------------------------------------------------------------------------------------------------

JSON someError(Random& random) {
  switch (random.below(5)) {
    case 0:
      return "noSpeech";
    case 1:
      return "dictationDisabled";
    case 2:
      return "cancelled";
    case 3:
      return {{"code", 1700}, {"text", "Retry"}};
    default:
      return {{"code", 203}, {"text", "Quota limit reached"}};
  }
}

// A duration of an operation of the analyzer, or its failure.
JSON someOperation(Random& random, bool canFail) {
  const auto choice = random.below(canFail ? 8 : 6);
  if (choice < 3) return random.oneOf({0, 5, 120, 700});
  if (choice == 3) return {{"insideCall", true}};
  if (choice == 4) return random.oneOf({0, 40, 2500});
  if (choice == 5) return random.chance(0.3) ? JSON("never") : JSON(30);
  return {{"after", random.oneOf({0, 200})}, {"error", {{"text", "The operation failed"}}}};
}

// The text names the entry, so that its words can be traced to their task.
JSON someUtterances(Random& random, const char* letter, bool isAnalysis) {
  JSON utterances = JSON::array();
  for (int number = 1, count = random.from(1, 12); number <= count; ++number) {
    const auto name = std::string(letter) + std::to_string(number);
    JSON partials = JSON::array();
    for (int i = 0, partialCount = random.from(0, 3); i < partialCount; ++i)
      partials.push_back(
          {{"afterAudio", 10 + 40 * i}, {"text", name + std::string(" word", i == 0 ? 0 : 5)}});
    JSON utterance{{"partials", std::move(partials)}};
    if (random.chance(0.8)) utterance["final"] = name + " words";
    if (isAnalysis) {
      if (random.chance(0.6)) utterance["finalAfter"] = random.from(20, 400);
      utterance["range"] = {0.01 * number, 0.01 * number + 0.2};
    }
    utterances.push_back(std::move(utterance));
  }
  return utterances;
}

JSON analysisState(Random& random, Manner manner) {
  JSON analysis{{"locales", {{"ja-JP", "ja_JP"}, {"en-US", "en_US"}}}};
  if (random.chance(0.5)) analysis["utterances"] = someUtterances(random, "a", true);
  const double unusual = manner == Manner::valid ? 0.05 : 0.3;
  for (const auto* const key : {"localeLookup", "modelLookup", "formatLookup", "cancel"})
    if (random.chance(unusual)) analysis[key] = someOperation(random, false);
  for (const auto* const key : {"prepare", "finalize"})
    if (random.chance(unusual)) analysis[key] = someOperation(random, true);
  if (random.chance(unusual / 3)) analysis["available"] = false;
  if (random.chance(unusual / 3))
    analysis["model"] = random.oneOf({"supported", "downloading", "unsupported"});
  if (random.chance(unusual / 3)) analysis["locales"] = {{"en-US", "en_US"}};
  if (random.chance(unusual))
    analysis["format"] =
        random.chance(0.2) ? JSON() : JSON{{"samples", "float32"}, {"rate", random.oneOf({16000, 48000})}};
  return analysis;
}

JSON recognitionState(Random& random, Manner manner) {
  JSON state{{"locales", {{"ja-JP", "installed"}, {"en-US", "installed"}, {"fr-FR", "supported"}}}};
  const double unusual = manner == Manner::valid ? 0.03 : 0.2;
  if (random.chance(0.3)) state["callbacks"] = "background";
  if (random.chance(0.5)) state["utterances"] = someUtterances(random, "u", false);
  if (random.chance(0.75)) state["answersAfterEndAudio"] = random.oneOf({0, 30, 400, 3000});
  if (random.chance(unusual)) state["answersAfterEndAudio"] = "insideCall";
  if (random.chance(unusual)) state["answersAfterCancel"] = random.oneOf<JSON>({0, 200, "insideCall"});
  if (random.chance(unusual)) state["authorization"] = random.oneOf<JSON>({"denied", "not-determined", 7});
  if (random.chance(unusual)) state["dictation"] = "off";
  if (random.chance(unusual))
    state["probe"] = random.oneOf<JSON>({"never",
                                         {{"after", 300}, {"error", "noSpeech"}},
                                         {{"after", 2600}},
                                         {{"partial", "a"}},
                                         {{"final", "a"}}});
  if (random.chance(0.1)) state["slicesDeliverInsideJobs"] = false;
  return state;
}

// A change of the machine while the helper runs.
JSON machineChange(Random& random, bool isLegacy) {
  switch (random.below(isLegacy ? 7 : 4)) {
    case 0:
      return {{"clockShift", random.oneOf<JSON>({-3'600'000, -1000, 0, 900.5, 20'000, 31'000, 86'400'000})}};
    case 1:
      return {{"audioBuffers", random.oneOf({"work", "work", "noFormat", "noBuffer", "noEmptyBuffer"})}};
    case 2:
      return isLegacy ? JSON{{"callbacks", random.oneOf({"main", "background"})}}
                      : JSON{{"audioConverters", random.oneOf({"work", "work", "noConverter", "fail"})}};
    case 3:
      return isLegacy
                 ? JSON{{"authorization", random.oneOf({"authorized", "authorized", "denied"})}}
                 : JSON{{"analysis", {{"model", random.oneOf({"installed", "installed", "supported"})}}}};
    case 4:
      return {{"answersAfterEndAudio", random.oneOf<JSON>({JSON(), 0, 700})}};
    case 5:
      return {{"locales", {{"ja-JP", random.oneOf({"installed", "installed", "supported"})}}}};
    default:
      return {{"dictation", random.oneOf({"on", "off"})}};
  }
}

// --- The conversation
// ---------------------------------------------------------------------------------------------------

using Channel = std::pair<std::string, std::string>;

class World {
 public:
  explicit World(const WorldChoice& choice)
      : random_(choice.seed),
        commands_(choice.commands),
        isLegacy_(random_.chance(0.5)),
        host_(chooseManner(random_)),
        machine_(chooseManner(random_)) {}

  JSON make();

 private:
  struct Speaker {
    bool isTalking = false;
    int lastChunk = 0;  // the first sample of the newest chunk, which names it
    bool hasPartials = false;
  };

  void add(double time, const char* key, JSON value) {
    steps_.push_back({{"at", time}, {key, std::move(value)}});
  }
  void send(JSON command);
  void actHost();
  void actMachine();
  void sendAudio(const Channel& channel);
  void sendHostility();
  void answerLegacy();
  void answerAnalyzer();
  void end();
  JSON modeWorld(JSON world);
  Channel someChannel() { return {random_.oneOf(sessions_), random_.oneOf({"remote", "self"})}; }
  std::string mark(const std::string& task) { return task + "." + std::to_string(++marks_); }

  Random random_;
  std::size_t commands_;
  bool isLegacy_;
  Manner host_;
  Manner machine_;
  std::vector<std::string> sessions_;
  std::map<std::string, bool> open_;
  std::map<Channel, bool> muted_;
  std::map<Channel, Speaker> speakers_;
  double time_ = 0;
  double pace_ = 50;  // usual ms between two lines
  int chunks_ = 0;
  int marks_ = 0;
  int sequence_ = 0;
  std::size_t sent_ = 0;
  bool hasEnded_ = false;
  std::vector<JSON> batch_;  // commands that arrive in one read
  JSON steps_ = JSON::array();
};

void World::send(JSON command) {
  ++sent_;
  add(time_, "host", std::move(command));
}

void World::sendAudio(const Channel& channel) {
  auto& speaker = speakers_[channel];
  if (random_.chance(0.06)) speaker.isTalking = !speaker.isTalking;
  speaker.lastChunk = ++chunks_;
  JSON audio{{"sessionId", channel.first},
             {"source", channel.second},
             {"frames", random_.chance(0.9) ? 160 : random_.oneOf({1, 16, 800, 1600})},
             {"rms", speaker.isTalking ? 0.1 : 0.0},
             {"firstSample", chunks_}};
  if (random_.chance(0.03)) audio["rms"] = random_.oneOf({0.0079, 0.008, 0.5});
  if (host_ != Manner::valid && random_.chance(0.05)) {
    audio["frames"] = 0;
    audio.erase("firstSample");
  }
  if (host_ == Manner::hostile && random_.chance(0.05))
    audio["capturedAt"] = random_.oneOf<JSON>({-1, 0, 1e300, -1e308, "@5", 0.1});
  ++sent_;
  add(time_, "audio", std::move(audio));
}

// Sends a line that is no valid command, or a valid one of an odd form.
void World::sendHostility() {
  ++sent_;
  const auto channel = someChannel();
  const JSON audio{{"type", "audio"},       {"sessionId", channel.first}, {"source", channel.second},
                   {"sequence", sequence_}, {"capturedAt", "@now"},       {"pcmBase64", "AAA="}};
  const auto with = [&](const char* key, const JSON& value) {
    JSON changed = audio;
    changed[key] = value;
    return changed;
  };
  const auto line = [&](const std::string& text) { add(time_, "line", text); };
  switch (random_.below(22)) {
    case 0:
      return line("{\"type\":\"ping\"");
    case 1:
      return line("[]");
    case 2:
      return line("  \t\r");
    case 3:
      return line("{\"type\":null}");
    case 4:
      return line("{\"type\":\"session.start\",\"sessionId\":5}");
    case 5:
      return line(R"({"type":"ping","sentAt":"x"})");
    case 6:
      return line(R"({"type":"ping","extra":{"a":[1,2,{"b":null}]},"sentAt":1e3})");
    case 7:
      return add(time_, "bytes", "7B 22 74 79 70 65 22 3A 22 FF 22 7D 0A");  // {"type":"\xFF"}
    case 8: {                                                                // a ping in two reads
      add(time_, "text", "{\"type\":\"pi");
      return add(time_, "text", "ng\"}\n");
    }
    case 9:
      return line("\"\\ud800\"");
    case 10:
      return line(R"({"type":"nap","sessionId":"s","source":"remote"})");
    case 11:
      return line(R"({"type":"audio","sessionId":"s"})");
    case 12:
      return line(R"({"type":"source.suppress","sessionId":"s","source":"remote"})");
    case 13:
      return line("{\"type\":\"session.stop\"}");
    case 14:
      return line(R"({"type":"session.start","locale":"ja-JP"})");
    case 15:
      return add(
          time_, "host",
          with("pcmBase64", random_.oneOf({"AAA", "A A=", "AA==", "AAAA\n", "-_-_", "=", "AAAAAA=="})));
    case 16:
      return add(time_, "host", with("sequence", random_.oneOf<JSON>({3.0, 3.5, 1e30, -1, "1"})));
    case 17:
      return add(time_, "host", with("source", random_.oneOf<JSON>({"both", JSON(), "REMOTE", 1})));
    case 18:
      return add(time_, "host", with("capturedAt", random_.oneOf<JSON>({JSON(), "now", true, -1e308})));
    case 19:
      return add(time_, "host", {{"type", "session.stop"}, {"sessionId", "unknown"}});
    case 20:
      return add(time_, "host",
                 {{"type", "session.start"},
                  {"sessionId", random_.oneOf(sessions_)},
                  {"vocabulary", random_.oneOf<JSON>(
                                     {JSON::array({1}), "word", JSON(std::vector<std::string>(130, "w"))})}});
    default:
      return add(time_, "host",
                 {{"type", "ping"}, {"sentAt", random_.oneOf<JSON>({-0.0, 1e308, 1.5, 5, -7})}});
  }
}

void World::actHost() {
  if (host_ == Manner::hostile && random_.chance(0.12)) return sendHostility();
  const auto channel = someChannel();
  const auto& [session, source] = channel;
  const bool isCareful = host_ == Manner::valid;
  if (!open_[session] && (isCareful || random_.chance(0.4))) {
    JSON start{{"type", "session.start"}, {"sessionId", session}};
    if (random_.chance(0.3)) start["locale"] = random_.oneOf({"ja-JP", "en-US", "en-US", "fr-FR", "xx", ""});
    if (random_.chance(0.2))
      start["vocabulary"] = std::vector<std::string>(random_.oneOf({0UL, 3UL, 101UL}), "word");
    open_[session] = true;
    return send(std::move(start));
  }
  const auto choice = random_.below(100);
  if (choice < 2) return send({{"type", "ping"}, {"sentAt", sequence_++}});
  if (choice < 5) {
    const bool mutes = isCareful ? !muted_[channel] : random_.chance(0.5);
    muted_[channel] = mutes;
    return send(
        {{"type", "source.suppress"}, {"sessionId", session}, {"source", source}, {"suppressed", mutes}});
  }
  if (choice < 6 || (choice < 8 && !isCareful)) {
    open_[session] = false;
    for (const auto* const each : {"remote", "self"}) muted_[{session, each}] = false;
    return send({{"type", "session.stop"}, {"sessionId", session}});
  }
  if (choice < 9 && !isCareful) return send({{"type", "session.start"}, {"sessionId", session}});
  if (choice == 9 && random_.chance(0.5)) {  // a burst, as after a stall of the host
    for (int i = 0, count = random_.from(3, 60); i < count; ++i) sendAudio(channel);
    return;
  }
  sendAudio(channel);
}

// Answers by the chunk that a task has received: the words name it.
void World::answerLegacy() {
  const auto channel = someChannel();
  auto& speaker = speakers_[channel];
  const bool lies = machine_ == Manner::hostile && random_.chance(0.3);
  JSON answer;
  std::string task;
  if (lies) {
    const int number = random_.from(1, 8);
    answer["task"] = number;
    task = "t" + std::to_string(number);
  } else {
    if (speaker.lastChunk == 0) return;
    const int chunk = lies ? random_.from(1, chunks_) : speaker.lastChunk;
    answer["heard"] = chunk;
    task = "h" + std::to_string(chunk);
  }
  const double start = 0.01 * random_.from(0, 30);
  const auto choice = random_.below(machine_ == Manner::valid ? 20 : 26);
  const bool isFinal = choice >= 17 && choice < 20;
  if (choice < 23) {
    const auto text = random_.chance(0.05)
                          ? random_.oneOf<std::string>({"", " \n", "\t"})
                          : random_.oneOf({"", " ", "\n"}) + mark(task) + random_.oneOf({"", " "});
    answer[isFinal ? "final" : "partial"] = text;
    if (random_.chance(0.7)) answer["segments"] = {{start, 0.2}, {start + 0.3, 0.25}};
    if (machine_ == Manner::hostile && random_.chance(0.1)) answer["segments"] = {{5, 1}, {-2, -3}};
  }
  if (choice >= 22) answer["error"] = someError(random_);
  add(time_ + (random_.chance(0.5) ? 0 : random_.from(0, 1500)), "recognizer", std::move(answer));
}

void World::answerAnalyzer() {
  const int number = random_.from(1, static_cast<int>(2 * sessions_.size()));
  JSON result{{"number", number}};
  const auto choice = random_.below(machine_ == Manner::valid ? 20 : 24);
  const double start = 0.01 * random_.from(0, 3000);
  if (choice < 20) {
    result[choice < 13 ? "partial" : "final"] =
        random_.chance(0.05) ? std::string(" \n")
                             : mark("n" + std::to_string(number)) + random_.oneOf({"", " "});
    result["range"] = {start, start + 0.4};
    if (machine_ == Manner::hostile && random_.chance(0.15))
      result["range"] = random_.oneOf<JSON>({{"NaN", "Infinity"}, {-5, 2}, {7, 3}, {1e300, 1e308}, {0, 0}});
  } else if (choice < 21) {
    result["error"] = someError(random_);
  } else {
    result[choice < 22 ? "end" : "cancelled"] = true;
  }
  if (random_.chance(0.3)) result["after"] = random_.from(0, 900);
  add(time_, "analyzer", std::move(result));
}

void World::actMachine() {
  const double changes = machine_ == Manner::valid ? 0 : machine_ == Manner::sloppy ? 0.006 : 0.02;
  if (random_.chance(changes)) add(time_, "platform", machineChange(random_, isLegacy_));
  if (!random_.chance(0.2)) return;
  if (isLegacy_) {
    answerLegacy();
  } else {
    answerAnalyzer();
  }
}

JSON World::modeWorld(JSON world) {
  const auto* const option =
      random_.oneOf({"--health", "--authorize", "--install-assets", "--research-transcribe-file"});
  world["arguments"] = {option};
  world["until"] = 120'000;
  if (option == std::string("--install-assets")) {
    if (random_.chance(0.5)) world["arguments"].push_back(random_.oneOf({"ja-JP", "en-US", "xx", ""}));
    auto& analysis = world["platform"]["analysis"];
    analysis["model"] = random_.oneOf({"supported", "installed", "downloading"});
    if (random_.chance(0.3)) analysis["download"] = someOperation(random_, true);
    if (random_.chance(0.3)) analysis["installationRequest"] = someOperation(random_, true);
  } else if (option == std::string("--authorize") && random_.chance(0.7)) {
    world["platform"]["authorizationAnswer"] =
        random_.oneOf<JSON>({"never",
                             {{"status", "denied"}, {"after", 900}},
                             {{"status", "authorized"}, {"insideCall", true}},
                             {{"status", 9}, {"after", 0}}});
  } else if (option == std::string("--research-transcribe-file") && random_.chance(0.8)) {
    world["files"] = {
        {"sound",
         {{"sound",
           {{"frames", random_.oneOf({0, 1, 4000, 10000})}, {"rate", random_.oneOf({16000, 16000, 8000})}}}}},
        {"words", {{"phrases", random_.oneOf({0, 3, 100, 101})}}}};
    world["arguments"].push_back("@files/sound");
    world["arguments"].push_back("@files/words");
  }
  return world;
}

// Asks the helper to end, in one of the ways of a host.
void World::end() {
  const JSON shutdown{{"type", "shutdown"}};
  switch (random_.below(5)) {
    case 0:
      return send(shutdown);
    case 4:  // nor is it read
      ++sent_;
      return add(time_, "text", "{\"type\":\"shutdown\"}\nnothing\n");
    case 1:  // what follows a shutdown is dropped
      return send(JSON::array({shutdown, {{"type", "ping"}}, {{"type", "session.stop"}}}));
    case 2:
      add(time_, "text", "{\"type\":\"ping\"}");  // the last line lacks its line feed
      break;
    default:
      break;
  }
  add(time_, "closeInput", true);
}

JSON World::make() {
  JSON world{{"title", "A random world."}, {"check", "invariants"}};
  world["system"] = isLegacy_ ? random_.oneOf({"macOS 15.0.0", "macOS 14.2", "Linux"}) : "macOS 26";
  JSON platform = recognitionState(random_, machine_);
  platform["analysis"] = analysisState(random_, machine_);
  world["platform"] = std::move(platform);
  if (random_.chance(0.3)) world["seed"] = random_.below(1000);
  if (random_.chance(0.1)) world["environment"] = {{"PALAVER_STT_DEBUG", "1"}};
  if (random_.chance(0.05)) world["startsAt"] = random_.oneOf<JSON>({0, 1e12, 4e15});
  world["conversation"] = JSON::array();
  if (random_.chance(0.04)) return modeWorld(std::move(world));

  for (int i = 1, count = random_.from(1, 3); i <= count; ++i) sessions_.push_back("s" + std::to_string(i));
  if (host_ != Manner::valid && random_.chance(0.3))
    sessions_.push_back(random_.oneOf({"", "a\"b\\/\n", "会議\u2028"}));
  pace_ = random_.oneOf({5, 20, 50, 100});
  time_ = random_.oneOf({0, 500, 3000});
  while (sent_ < commands_ && !hasEnded_) {
    actHost();
    actMachine();
    if (random_.chance(0.7)) time_ += random_.oneOf({0.5, 1.0, 1.0, 2.0}) * pace_;
    if (random_.chance(0.01)) time_ += random_.oneOf({900, 2500, 10'000, 20'000, 31'000});
    if (random_.chance(0.0004)) hasEnded_ = true;
  }
  if (hasEnded_ || random_.chance(0.5)) end();
  std::stable_sort(steps_.begin(), steps_.end(),
                   [](const JSON& a, const JSON& b) { return a.at("at") < b.at("at"); });
  world["conversation"] = std::move(steps_);
  world["until"] = time_ + settling;
  return world;
}

}  // namespace

JSON makeWorld(const WorldChoice& choice) {
  return World(choice).make();
}

}  // namespace palaver
