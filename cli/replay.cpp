#include <poll.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "cli/ArgumentReader.h"
#include "cli/LineSplitter.h"
#include "cli/RecordedScenario.h"
#include "cli/Recording.h"
#include "cli/findHelper.h"
#include "cli/record.h"
#include "cli/writeFile.h"
#include "platform/posix/PipedProcess.h"

namespace palaver::cli {

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr const char* usage =
    R"(usage: palaver-stt replay [options] FILE

Says to a helper what the host of a recording said, byte for byte and at its pace, and
compares the finals of both. FILE is from palaver-stt record, without --redact.

  --scenario OUT  play nothing, and write a scenario for PalaverSTTSimulator: the same
                  meeting in virtual time, with the same finals
  --helper PATH   helper to run (default: the one beside this program)
  --help          print this help

Exit status: 0 the same finals, 1 others or a failure, 2 invalid usage.
)";

// The finals of one stream of events, as "source: text", sorted: the order between sources is not fixed.
class Finals {
 public:
  void add(std::string_view bytes) {
    lines_.append(bytes, [this](std::string_view line) {
      const auto event = json::parse(line, nullptr, false);
      if (!event.is_object() || event.value("type", "") != "transcript.final") return;
      finals_.push_back(event.value("source", "") + ": " + event.value("text", ""));
    });
  }
  std::vector<std::string> sorted() const {
    auto finals = finals_;
    std::ranges::stable_sort(finals, {},
                             [](const std::string& text) { return text.substr(0, text.find(':')); });
    return finals;
  }

 private:
  LineSplitter lines_;
  std::vector<std::string> finals_;
};

void hear(PipedProcess& helper, Finals& finals, int milliseconds) {
  std::array<pollfd, 3> waits{{{helper.output(), POLLIN, 0},
                               {helper.diagnostics(), POLLIN, 0},
                               {helper.queuedBytes() > 0 ? helper.input() : -1, POLLOUT, 0}}};
  ::poll(waits.data(), waits.size(), milliseconds);
  helper.flush();
  std::string bytes;
  while (helper.readOutput(bytes) == ReadOutcome::data) finals.add(bytes);
  while (helper.readDiagnostics(bytes) == ReadOutcome::data)
    std::fwrite(bytes.data(), 1, bytes.size(), stderr);
}

bool replayFile(const std::string& file, const std::string& program) {
  const auto recorded = readConversation(file);
  if (recorded.isRedacted) throw std::runtime_error(file + ": is redacted, so there is nothing to say again");
  std::signal(SIGPIPE, SIG_IGN);
  std::vector<std::string> command{program};
  if (recorded.command.size() > 1)
    command.insert(command.end(), recorded.command.begin() + 1, recorded.command.end());
  PipedProcess helper(command);
  Finals before, now;
  const auto start = Clock::now();
  for (const auto& piece : recorded.pieces) {
    if (piece.from == Speaker::helper) before.add(piece.bytes);
    if (piece.from != Speaker::host) continue;
    const auto due = start + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double, std::milli>(piece.at));
    for (auto left = due - Clock::now(); left > Clock::duration::zero(); left = due - Clock::now())
      hear(helper, now, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count()));
    helper.write(piece.bytes);
    helper.flush();
  }
  helper.closeInput();
  while (helper.output() >= 0) hear(helper, now, -1);
  const auto expected = before.sorted(), actual = now.sorted();
  for (std::size_t i = 0; i < std::max(expected.size(), actual.size()); ++i) {
    const bool isSame = i < expected.size() && i < actual.size() && expected[i] == actual[i];
    if (isSame) {
      std::printf("  %s\n", expected[i].c_str());
      continue;
    }
    if (i < expected.size()) std::printf("- %s\n", expected[i].c_str());
    if (i < actual.size()) std::printf("+ %s\n", actual[i].c_str());
  }
  std::printf("%zu finals recorded, %zu replayed: %s\n", expected.size(), actual.size(),
              expected == actual ? "the same" : "different");
  return expected == actual;
}

// The scenario holds what was said, like the recording.
int writeScenario(const std::string& file, const std::string& output) {
  const auto title = "Replays " + std::filesystem::path(file).filename().string() + ".";
  writePrivateFile(output, scenarioOf(readConversation(file), title));
  return std::printf("%s\n", output.c_str()) < 0 ? 1 : 0;
}

}  // namespace

int replay(std::span<const std::string> arguments) {
  auto helper = findHelper();
  std::optional<std::string> scenario;
  const auto file = readOneFile(arguments, "recording", [&](const std::string& option, auto& reader) {
    if (option == "--helper") {
      helper = reader.value();
    } else if (option == "--scenario") {
      scenario = reader.value();
    } else {
      return false;
    }
    return true;
  });
  if (!file) return std::fputs(usage, stdout) < 0 ? 1 : 0;
  if (scenario) return writeScenario(*file, *scenario);
  return replayFile(*file, helper) ? 0 : 1;
}

}  // namespace palaver::cli
