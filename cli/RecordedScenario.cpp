#include "cli/RecordedScenario.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "cli/EventText.h"
#include "cli/LineSplitter.h"
#include "cli/PCM.h"
#include "core/UTF8.h"

namespace palaver::cli {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr double beforeFirstWord = 200;    // ms of audio before an utterance that belong to it
constexpr double searchedAudio = 5000;     // ms of an utterance in which its chunk is looked for
constexpr double concurrentAudio = 60000;  // ms in which a chunk of the other source may be in a task
constexpr double untilInputEnds = 1000;    // ms after everything else

std::string hexadecimal(const std::string& bytes) {
  constexpr const char* digits = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    text += digits[static_cast<unsigned char>(byte) >> 4];
    text += digits[static_cast<unsigned char>(byte) & 15];
  }
  return text;
}

class ScenarioWriter {
 public:
  void add(const RecordedPiece& piece) {
    if (hasShutDown_) return addFinalsOnly(piece);
    at_ = std::max(at_, piece.at);
    if (piece.from == Speaker::host) {
      addStep(isValidUTF8(piece.bytes) ? ordered_json{{"text", piece.bytes}}
                                       : ordered_json{{"bytes", hexadecimal(piece.bytes)}});
      commands_.append(piece.bytes, [this](std::string_view line) { addCommand(line); });
    } else if (piece.from == Speaker::helper) {
      events_.append(piece.bytes, [this](std::string_view line) { addEvent(line); });
    }
  }

  std::string written(const std::string& title, double startedAt) {
    if (!hasShutDown_) {
      at_ += untilInputEnds;
      addStep({{"closeInput", true}});
    }
    ordered_json head{{"title", title}, {"startsAt", startedAt}, {"exit", 0}};
    if (isAnalyzer_) head["system"] = "macOS 26";
    json locales = json::object(), served = json::object();
    for (const auto& locale : locales_) {
      locales[locale] = "installed";
      served[locale] = locale;
    }
    head["platform"] = isAnalyzer_ ? json{{"analysis", {{"locales", served}}}} : json{{"locales", locales}};
    head["finals"] = finals_;
    auto text = head.dump();
    text.pop_back();
    text += ",\n\"conversation\": [";
    for (std::size_t i = 0; i < steps_.size(); ++i) text += (i == 0 ? "\n" : ",\n") + steps_[i];
    return text + "\n]}\n";
  }

 private:
  struct Chunk {
    double arrivedAt = 0;   // ms since the start
    double capturedAt = 0;  // ms since the Unix epoch
    int firstSample = 0;
    bool isVoiced = false;
  };
  using Channel = std::pair<std::string, std::string>;  // session and source

  void addStep(const ordered_json& step) {
    ordered_json timed{{"at", at_}};
    timed.update(step);
    steps_.push_back(timed.dump());
  }

  void addCommand(std::string_view line) {
    const auto command = json::parse(line, nullptr, false);
    if (!command.is_object()) return;
    const auto type = textOf(command, "type");
    const auto session = textOf(command, "sessionId");
    if (type == "shutdown") hasShutDown_ = true;
    if (type == "session.start") {
      const auto locale = textOf(command, "locale");
      locales_.insert(locale.empty() ? "ja-JP" : locale);
      // One analyzer for each source, in this order.
      for (const auto* const source : {"remote", "self"}) analyzers_[{session, source}] = ++analyzerCount_;
    }
    if (type == "session.stop")
      for (const auto* const source : {"remote", "self"}) suppressed_.erase({session, source});
    if (type == "source.suppress") {
      const Channel channel{session, textOf(command, "source")};
      if (command.value("suppressed", json()) == true) {
        suppressed_.insert(channel);
      } else if (suppressed_.erase(channel) > 0 && analyzers_.contains(channel)) {
        analyzers_[channel] = ++analyzerCount_;
      }
    }
    if (type != "audio") return;
    const auto samples = decodedPCM(textOf(command, "pcmBase64"));
    if (!samples || samples->empty()) return;
    chunks_[textOf(command, "source")].push_back({at_, numberOf(command, "capturedAt").value_or(0),
                                                  samples->front(), loudnessOf(*samples) >= voiceThreshold});
  }

  void addEvent(std::string_view line) {
    const auto event = json::parse(line, nullptr, false);
    if (!event.is_object()) return;
    const auto type = textOf(event, "type");
    if (type == "helper.status" && textOf(event, "implementation") == "speech-analyzer") isAnalyzer_ = true;
    const bool isFinal = type == "transcript.final";
    if (!isFinal && type != "transcript.partial") return;
    const auto source = textOf(event, "source");
    if (isFinal) finals_[source].push_back(textOf(event, "text"));
    const auto endpointing = event.find("endpointing");
    if (isFinal && endpointing != event.end() && endpointing->is_object() &&
        textOf(*endpointing, "reason") == "flush")
      return;  // the helper's own
    json answer{{isFinal ? "final" : "partial", textOf(event, "text")}};
    if (isAnalyzer_) {
      const auto analyzer = analyzers_.find({textOf(event, "sessionId"), source});
      if (analyzer == analyzers_.end()) return;
      answer["number"] = analyzer->second;
      addStep({{"analyzer", answer}});
    } else {
      if (const auto* const chunk = chunkOf(source, numberOf(event, "startedAt").value_or(0)))
        answer["heard"] = chunk->firstSample;
      addStep({{"recognizer", answer}});
    }
  }

  void addFinalsOnly(const RecordedPiece& piece) {
    if (piece.from != Speaker::helper) return;
    events_.append(piece.bytes, [this](std::string_view line) {
      const auto event = json::parse(line, nullptr, false);
      if (event.is_object() && textOf(event, "type") == "transcript.final")
        finals_[textOf(event, "source")].push_back(textOf(event, "text"));
    });
  }

  // Returns a chunk that went to the task of an utterance and whose first sample names no other task.
  const Chunk* chunkOf(const std::string& source, double startedAt) const {
    const auto own = chunks_.find(source);
    if (own == chunks_.end()) return nullptr;
    const Chunk* found = nullptr;
    for (const auto& chunk : own->second) {
      if (chunk.capturedAt < startedAt - beforeFirstWord || chunk.capturedAt > startedAt + searchedAudio ||
          !chunk.isVoiced)
        continue;
      const bool isUnique = isOnlyIn(source, chunk);
      if (!found || isUnique) found = &chunk;
      if (isUnique) break;
    }
    return found;
  }

  bool isOnlyIn(const std::string& source, const Chunk& chunk) const {
    for (const auto& [name, others] : chunks_) {
      if (name == source) continue;
      for (auto other = others.rbegin(); other != others.rend(); ++other) {
        if (other->arrivedAt < chunk.arrivedAt - concurrentAudio) break;
        if (other->firstSample == chunk.firstSample) return false;
      }
    }
    return true;
  }

  double at_ = 0;  // ms since the start
  std::vector<std::string> steps_;
  LineSplitter commands_;
  LineSplitter events_;
  std::set<std::string> locales_;
  std::map<std::string, std::vector<Chunk>> chunks_;  // by source
  std::map<Channel, int> analyzers_;                  // the newest of each
  int analyzerCount_ = 0;
  std::set<Channel> suppressed_;
  std::map<std::string, std::vector<std::string>> finals_;  // by source
  bool isAnalyzer_ = false;
  bool hasShutDown_ = false;
};

}  // namespace

std::string scenarioOf(const RecordedConversation& recorded, const std::string& title) {
  if (recorded.isRedacted) throw std::runtime_error("a redacted recording holds no words to play again");
  ScenarioWriter writer;
  for (const auto& piece : recorded.pieces) writer.add(piece);
  return writer.written(title, recorded.startedAt);
}

}  // namespace palaver::cli
