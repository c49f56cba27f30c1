// Runs the helper on a simulated machine, for tests.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

#include "core/UTF8.h"
#include "simulator/explore/Exploration.h"
#include "simulator/live.h"
#include "simulator/scenario/ScenarioDifferences.h"
#include "simulator/scenario/ScenarioRunner.h"
#ifdef PALAVER_CONVERSATIONS
#include "simulator/stepped/Converse.h"
#include "simulator/stepped/stepped.h"
#endif

namespace palaver {

namespace {

constexpr const char* usage =
    "Usage: PalaverSTTSimulator run FILE...\n"
    "         plays scenarios in virtual time; exit status 1 when one fails\n"
    "       PalaverSTTSimulator record FILE...\n"
    "         plays scenarios in virtual time and prints each run as a line of JSON: scenario, seed,\n"
    "         arguments, input and output. A piece of input that is not UTF-8 is in hexadecimal, in a list\n"
    "       PalaverSTTSimulator explore --seeds A..B [--commands N] [--jobs N] [--save FOLDER]\n"
    "         plays a random world for each seed in virtual time and checks that no invariant is broken; "
    "exit\n"
    "         status 1 with a small scenario of the first failing seed. N lines of the host in a world\n"
    "       PalaverSTTSimulator converse FILE [DIFFERENCES] -- PROGRAM [ARGUMENT...]\n"
    "         plays a scenario against a program in stepped time (Linux only); exit status 1 when it fails,\n"
    "         77 when it cannot be played this way. DIFFERENCES lists intended differences of the program\n"
    "       PalaverSTTSimulator stepped [HELPER ARGUMENT...]\n"
    "         runs the helper as a program for converse: real threads and streams, the rest simulated\n"
    "       PalaverSTTSimulator live STATE [HELPER ARGUMENT...]\n"
    "         runs the helper in real time on the machine that the file describes\n"
    "       PalaverSTTSimulator analyzer [HELPER ARGUMENT...]\n"
    "         runs the helper of macOS 26 in real time with the recognizer of Linux\n"
    "       PalaverSTTSimulator worker CLOCK WORKER [HELPER ARGUMENT...]\n"
    "         runs the helper of Linux with a speech worker; the file CLOCK holds the time of the wall "
    "clock\n";

bool playFile(const std::filesystem::path& path) {
  const auto report = [&]() -> std::optional<std::string> {
    try {
      return play(readScenario(path));
    } catch (const FileError& error) {
      return "  " + std::string(error.what()) + "\n";
    }
  }();
  std::printf("%s %s\n", report ? "FAILED" : "passed", path.stem().string().c_str());
  if (report) std::printf("%s", report->c_str());
  return !report;
}

// Plays a file in a child process, so that a crash ends only this scenario.
bool playFileApart(const std::filesystem::path& path) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child < 0) return playFile(path);
  if (child == 0) {
    const bool passed = playFile(path);
    std::exit(passed ? 0 : 1);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) <= 1) return WEXITSTATUS(status) == 0;
  const auto reason = WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                          : "status " + std::to_string(WEXITSTATUS(status));
  std::printf("FAILED %s\n  the process that played it ended with %s\n", path.stem().string().c_str(),
              reason.c_str());
  return false;
}

int live(std::span<char*> arguments) {
  try {
    runLive(arguments.front(), arguments.subspan(1));
  } catch (const FileError& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}

int liveLinux(std::span<char*> arguments) {
  try {
    runLiveLinux(arguments[0], arguments[1], arguments.subspan(2));
  } catch (const FileError& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}

int run(std::span<char*> paths) {
  int failures = 0;
  const auto playOne = paths.size() > 1 ? playFileApart : playFile;
  for (const char* const path : paths) failures += playOne(path) ? 0 : 1;
  if (paths.size() > 1) std::printf("%zu scenarios, %d failed\n", paths.size(), failures);
  return failures == 0 ? 0 : 1;
}

// Returns a piece of input as text, or as a list of its bytes in hexadecimal if it is not valid UTF-8.
JSON inputPiece(const std::string& bytes) {
  if (isValidUTF8(bytes)) return bytes;
  std::string digits;
  for (const char byte : bytes) {
    constexpr const char* hexadecimal = "0123456789abcdef";
    digits += hexadecimal[static_cast<unsigned char>(byte) >> 4];
    digits += hexadecimal[static_cast<unsigned char>(byte) & 15];
  }
  return JSON::array({digits});
}

void recordFile(const std::filesystem::path& path) {
  const auto scenario = readScenario(path);
  JSON input = JSON::array();
  for (const auto& action : scenario.actions)
    if (const auto* const bytes = std::get_if<HostBytes>(&action.what))
      input.push_back(inputPiece(bytes->bytes));
  for (const auto& seed : scenario.seeds) {
    const auto record = recordOnce(scenario, seed);
    JSON output = JSON::array();
    for (const auto& line : record.output.lines) output.push_back(line.text);
    const JSON run{{"scenario", path.stem().string()},
                   {"seed", seed ? JSON(*seed) : JSON()},
                   {"arguments", scenario.settings.arguments},
                   {"exitStatus", record.exitStatus ? JSON(*record.exitStatus) : JSON()},
                   {"input", input},
                   {"output", std::move(output)}};
    std::printf("%s\n", run.dump().c_str());
  }
}

int record(std::span<char*> paths) {
  try {
    for (const char* const path : paths) recordFile(path);
    return 0;
  } catch (const std::exception& error) {  // an invalid file, or a text that is not UTF-8
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}

#ifdef PALAVER_CONVERSATIONS

// `files` holds the scenario and, optionally, the differences.
int converseWith(std::span<char*> files, std::span<char*> command) {
  constexpr int skippedStatus = 77;  // the skip status of CTest and Automake
  std::signal(SIGPIPE, SIG_IGN);
  const std::filesystem::path path(files.front());
  const auto name = path.stem().string();
  try {
    const auto differences = files.size() > 1 ? ScenarioDifferences(files[1]) : ScenarioDifferences();
    const auto difference = differences.of(name);
    const auto scenario = readScenario(path, difference ? difference->changes : JSON::object());
    const auto [skipped, failure] = converse(scenario, {command.begin(), command.end()});
    std::printf("%s %s\n", skipped ? "skipped" : failure ? "FAILED" : "passed", name.c_str());
    if (difference) std::printf("  with a difference: %s\n", difference->reason.c_str());
    if (skipped) std::printf("  %s\n", skipped->c_str());
    if (failure) std::printf("%s", failure->c_str());
    if (skipped) return skippedStatus;
    return failure ? 1 : 0;
  } catch (const std::exception& error) {  // invalid files, or the program cannot be started
    std::printf("FAILED %s\n  %s\n", name.c_str(), error.what());
    return 1;
  }
}

#endif

int runMode(std::span<char*> all) {
  const std::string_view mode = all.size() > 1 ? all[1] : "";
  if (mode == "run" && all.size() > 2) return run(all.subspan(2));
  if (mode == "record" && all.size() > 2) return record(all.subspan(2));
  if (mode == "explore") return explore(all.subspan(2));
#ifdef PALAVER_CONVERSATIONS
  if (mode == "converse") {
    const auto words = all.subspan(2);
    const auto separator = std::find(words.begin(), words.end(), std::string_view("--"));
    const auto files = words.first(static_cast<std::size_t>(separator - words.begin()));
    if ((files.size() == 1 || files.size() == 2) && words.end() - separator > 1)
      return converseWith(files, {separator + 1, words.end()});
  }
  if (mode == "stepped") runStepped(all.subspan(2));
#endif
  if (mode == "live" && all.size() > 2) return live(all.subspan(2));
  if (mode == "worker" && all.size() > 3) return liveLinux(all.subspan(2));
  if (mode == "analyzer") runLiveAnalyzer(all.subspan(2));
  std::fputs(usage, stderr);
  return 2;
}

}  // namespace

}  // namespace palaver

int main(int argumentCount, char** arguments) {
  try {
    return palaver::runMode({arguments, static_cast<std::size_t>(argumentCount)});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "PalaverSTTSimulator: %s\n", error.what());
    return 2;
  }
}
