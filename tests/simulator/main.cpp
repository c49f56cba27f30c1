// PalaverSTTSimulator: the helper on a simulated machine, for tests.
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

#include "tests/simulator/ScenarioRunner.h"
#include "tests/simulator/live.h"
#include "tests/simulator/stepped/Converse.h"
#include "tests/simulator/stepped/stepped.h"

namespace palaver {

namespace {

constexpr const char* usage =
    "Usage: PalaverSTTSimulator run FILE...\n"
    "         plays scenarios in virtual time; exit status 1 when one fails\n"
    "       PalaverSTTSimulator converse FILE -- PROGRAM [ARGUMENT...]\n"
    "         plays a scenario against a program in stepped time; exit status 1 when it fails, 77 when it\n"
    "         cannot be played so\n"
    "       PalaverSTTSimulator stepped [HELPER ARGUMENT...]\n"
    "         is such a program: the helper on this machine's threads and streams, the rest simulated\n"
    "       PalaverSTTSimulator live STATE [HELPER ARGUMENT...]\n"
    "         is the helper on the machine that the file describes, in real time\n"
    "       PalaverSTTSimulator analyzer [HELPER ARGUMENT...]\n"
    "         is the helper of macOS 26 with the recognizer of Linux, in real time\n";

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

int live(std::span<char*> arguments) {
  try {
    runLive(arguments.front(), arguments.subspan(1));
  } catch (const FileError& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}

int run(std::span<char*> paths) {
  int failures = 0;
  for (const char* const path : paths) failures += playFile(path) ? 0 : 1;
  if (paths.size() > 1) std::printf("%zu scenarios, %d failed\n", paths.size(), failures);
  return failures == 0 ? 0 : 1;
}

int converseWith(std::span<char*> arguments) {
  constexpr int skippedStatus = 77;  // as test drivers know it
  std::signal(SIGPIPE, SIG_IGN);
  const std::filesystem::path path(arguments.front());
  const auto name = path.stem().string();
  try {
    const auto command = arguments.subspan(2);
    const auto outcome = converse(readScenario(path), {command.begin(), command.end()});
    const auto& failure = outcome.report;
    std::printf("%s %s\n%s",
                outcome.skipped ? "skipped"
                : failure       ? "FAILED"
                                : "passed",
                name.c_str(),
                outcome.skipped ? ("  " + *outcome.skipped + "\n").c_str() : failure.value_or("").c_str());
    if (outcome.skipped) return skippedStatus;
    return failure ? 1 : 0;
  } catch (const std::exception& error) {  // of the file, or of starting the program
    std::printf("FAILED %s\n  %s\n", name.c_str(), error.what());
    return 1;
  }
}

}  // namespace

}  // namespace palaver

int main(int argumentCount, char** arguments) {
  const std::span all(arguments, static_cast<std::size_t>(argumentCount));
  const std::string_view mode = all.size() > 1 ? all[1] : "";
  if (mode == "run" && all.size() > 2) return palaver::run(all.subspan(2));
  if (mode == "converse" && all.size() > 4 && std::string_view(all[3]) == "--")
    return palaver::converseWith(all.subspan(2));
  if (mode == "stepped") palaver::runStepped(all.subspan(2));
  if (mode == "live" && all.size() > 2) return palaver::live(all.subspan(2));
  if (mode == "analyzer") palaver::runLiveAnalyzer(all.subspan(2));
  std::fputs(palaver::usage, stderr);
  return 2;
}
