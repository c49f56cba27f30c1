// Measures word errors of the whole helper (palaver_accuracy) on recordings of human speech, streamed in real
// time as by a host.
#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/accuracy/Alignment.h"
#include "bench/accuracy/Recording.h"
#include "bench/accuracy/SoundSequence.h"
#include "cli/HostSession.h"
#include "cli/TextLayout.h"

namespace {

using namespace palaver;
using namespace palaver::accuracy;

constexpr std::int64_t pause = cli::sampleRate * 2;  // between recordings, frames

// The recognizer's words change when a recording begins a few milliseconds later in a chunk: every fifth
// error depends on that. Each speaker is therefore streamed several times, each time at another offset.
constexpr std::array<std::int64_t, 3> offsets{0, 533, 1067};  // frames; 0, 33 and 67 ms

struct Final {
  AudioSource source;
  std::string text;
  std::string reason;
  double start = 0;    // ms of the stream
  double end = 0;      // ms of the stream
  double latency = 0;  // ms
};

class Finals final : public cli::HostObserver {
 public:
  std::vector<Final> finals;
  std::string problems;

  void onEvent(std::string_view, const nlohmann::json& event) override {
    const auto type = event.value("type", "");
    if (type == "helper.error") onProblem(event.value("message", ""));
    if (type != "transcript.final") return;
    const auto source = audioSource(event.value("source", ""));
    if (!source) return;
    finals.push_back({*source, event.value("text", ""), event.at("endpointing").value("reason", ""),
                      event.at("startedAt").get<double>() - startedAt_,
                      event.at("speechEndedAt").get<double>() - startedAt_,
                      event.at("latencyMs").get<double>()});
  }
  void onDiagnostic(std::string_view) override {}
  void onProblem(std::string_view message) override { problems.append(message).append("; "); }
  void onStreamStart(double startedAt) override { startedAt_ = startedAt; }
  void onProgress(double, double) override {}

 private:
  double startedAt_ = 0;
};

struct RecordingResult {
  Recording recording;
  std::vector<Final> finals;
};

std::unique_ptr<SoundSequence> sequenceOf(const Speaker& speaker, std::int64_t offset) {
  std::vector<std::string> paths;
  for (const auto& recording : speaker) paths.push_back(recording.path);
  return speaker.empty() ? nullptr : std::make_unique<SoundSequence>(paths, pause + offset);
}

// Returns the recording that a final belongs to: the one that plays in the middle of its speech.
std::size_t recordingOf(const Final& final, const SoundSequence& sequence) {
  const auto middle = (final.start + final.end) / 2 * cli::sampleRate / 1000;
  std::size_t index = 0;
  while (index + 2 < sequence.starts().size() && middle >= static_cast<double>(sequence.starts()[index + 1]))
    ++index;
  return index;
}

void collect(const Speaker& speaker, const SoundSequence& sequence, AudioSource source,
             const std::vector<Final>& finals, std::vector<RecordingResult>& results) {
  const auto first = results.size();
  for (const auto& recording : speaker) results.push_back({recording, {}});
  for (auto final : finals) {
    if (final.source != source) continue;
    const auto index = recordingOf(final, sequence);
    const auto start = static_cast<double>(sequence.starts()[index]) * 1000 / cli::sampleRate;
    final.start -= start;
    final.end -= start;
    results[first + index].finals.push_back(final);
  }
}

// Streams two speakers (the second may be empty) through one helper.
std::vector<RecordingResult> stream(const Speaker& remote, const Speaker& self, std::int64_t offset) {
  cli::HostConfiguration configuration;
  configuration.helper = {PALAVER_HELPER};
  configuration.limits.finals = 120000;  // a busy machine delays words but does not change them
  auto remoteSound = sequenceOf(remote, offset);
  auto selfSound = sequenceOf(self, offset);
  // The session owns the sounds. Their starts are read after the session.
  const auto& remoteSequence = *remoteSound;
  const auto* const selfSequence = selfSound.get();
  Finals finals;
  cli::HostSession session(configuration, std::move(remoteSound), std::move(selfSound), finals);
  if (!session.run()) throw std::runtime_error("the session went wrong: " + finals.problems);
  std::vector<RecordingResult> results;
  collect(remote, remoteSequence, AudioSource::remote, finals.finals, results);
  if (selfSequence) collect(self, *selfSequence, AudioSource::selfAudio, finals.finals, results);
  return results;
}

// Streams each pair of neighbours in its own session, one session after another.
std::vector<RecordingResult> streamPairs(const std::vector<Speaker>& speakers, std::int64_t offset) {
  std::vector<RecordingResult> results;
  for (std::size_t at = 0; at < speakers.size(); at += 2) {
    auto pair = stream(speakers[at], at + 1 < speakers.size() ? speakers[at + 1] : Speaker{}, offset);
    results.insert(results.end(), pair.begin(), pair.end());
  }
  return results;
}

void printRow(const char* name, const ErrorCount& count) {
  std::printf("%-50s%5zu%5zu%5zu%5zu%7.1f\n", name, count.words, count.substitutions, count.insertions,
              count.deletions, count.rate() * 100);
}

std::string describeUtterances(const std::vector<Final>& finals) {
  std::string text;
  for (const auto& final : finals)
    text += (text.empty() ? "" : ", ") + cli::position(final.start) + " - " + cli::position(final.end) +
            " (" + final.reason + ", latency " + std::to_string(std::lround(final.latency)) + " ms)";
  return text.empty() ? "no utterance" : text;
}

// Prints the table and the alignments. Returns the errors of all recordings.
ErrorCount report(const char* title, const std::vector<RecordingResult>& results) {
  std::printf("\n%s\n\n%-50s%5s%5s%5s%5s%7s\n", title, "recording", "words", "sub", "ins", "del", "%");
  ErrorCount total;
  ErrorCount documented;
  double latency = 0;
  std::string details;
  for (const auto& [recording, finals] : results) {
    Utterances utterances;
    for (const auto& final : finals) {
      utterances.push_back(splitWords(final.text));
      latency = std::max(latency, final.latency);
    }
    const auto alignment = align(recording.words, utterances);
    details += recording.name + (recording.words.empty() ? ", not counted: its words are not known\n" : "\n");
    for (const auto& line : cli::wrap(describe(alignment), 76)) details += "    " + line + "\n";
    details += "    " + describeUtterances(finals) + "\n";
    if (recording.words.empty()) continue;
    const auto count = countErrors(alignment);
    total += count;
    if (recording.isDocumented) documented += count;
    printRow(recording.name.c_str(), count);
  }
  printRow("all", total);
  printRow("those whose words are written down", documented);
  std::printf("errors at the start of an utterance %zu, at its end %zu, within %zu\n\n%s", total.atStart,
              total.atEnd, total.errors() - total.atStart - total.atEnd, details.c_str());
  // 900 ms of silence, a chunk, and the recognizer's own time.
  if (latency > 2000)
    std::printf(
        "The machine was busy: a final came %.1f s after its last word, and words may be lost to that.\n",
        latency / 1000);
  return total;
}

void run(const std::filesystem::path& directory) {
  const auto speakers = readRecordings(directory);
  std::vector<Speaker> alone;
  for (const auto& speaker : speakers)
    for (const auto& recording : speaker) alone.push_back({recording});

  std::printf(
      "Alignment: [said>understood] [-lost] [+added]; | between utterances; ! at an utterance's edge.\n");
  // One session after another: a helper without enough processor time would lose words.
  std::vector<ErrorCount> rounds;
  for (const auto offset : offsets) {
    const auto title = "One channel for each speaker, as in a meeting; begun " +
                       std::to_string(offset * 1000 / cli::sampleRate) + " ms into a chunk:";
    rounds.push_back(report(title.c_str(), streamPairs(speakers, offset)));
    std::fflush(stdout);
  }
  report("A new session for every recording:", streamPairs(alone, 0));

  ErrorCount sum;
  std::printf("\nOne channel for each speaker, errors:");
  for (const auto& round : rounds) {
    sum += round;
    std::printf(" %zu", round.errors());
  }
  std::printf(" of %zu words; together %.1f %% (to reach: 20.0 %% or less)\n", rounds.front().words,
              sum.rate() * 100);
}

}  // namespace

int main(int argumentCount, char** arguments) {
  std::signal(SIGPIPE, SIG_IGN);  // writing to an ended helper is an error, not a signal
  try {
    run(argumentCount > 1 ? arguments[1] : "/usr/share/pocketsphinx/test/data");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "palaver_accuracy: %s\n", error.what());
    return 1;
  }
}
