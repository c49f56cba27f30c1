// Runs palaver-stt, the command line tool: chooses the command by the first argument.
#include <cstdio>
#include <exception>
#include <span>
#include <string>
#include <vector>

#include "cli/ArgumentReader.h"
#include "cli/doctor.h"
#include "cli/models.h"
#include "cli/record.h"
#include "cli/report.h"
#include "cli/transcribe.h"

namespace {

constexpr const char* usage =
    R"(usage: palaver-stt COMMAND [arguments]

  transcribe REMOTE [SELF]  stream sound files to the helper and show the transcript
  doctor [FILE...]          say why a meeting would have no transcript, and what to do
  record FILE               stand between a host and the helper, and record both
  replay FILE               say again what a recorded host said, and compare the finals
  report FILE               make a page and subtitles of a recorded meeting
  models                    list, add, check and remove speech models (Linux)

  --version                 print the version
  --help                    print this help

palaver-stt COMMAND --help describes a command.
Exit status: 0 success, 1 failure, 2 invalid usage.
)";

int run(std::span<const std::string> arguments) {
  using namespace palaver::cli;
  if (arguments.empty()) throw UsageError("a command is required");
  const auto& command = arguments.front();
  if (command == "doctor") return doctor(arguments.subspan(1));
  if (command == "record") return record(arguments.subspan(1));
  if (command == "report") return report(arguments.subspan(1));
  if (command == "replay") return replay(arguments.subspan(1));
  if (command == "transcribe") return transcribe(arguments.subspan(1));
  if (command == "models") return models(arguments.subspan(1));
  if (command == "--help" || command == "-h" || command == "help")
    return std::fputs(usage, stdout) < 0 ? 1 : 0;
  if (command == "--version") return std::printf("palaver-stt %s\n", PALAVER_VERSION) < 0 ? 1 : 0;
  throw UsageError("there is no command '" + command + "'");
}

}  // namespace

int main(int argumentCount, char** argumentValues) {
  const std::vector<std::string> arguments(argumentValues + (argumentCount > 0 ? 1 : 0),
                                           argumentValues + argumentCount);
  try {
    return run(arguments);
  } catch (const palaver::cli::UsageError& error) {
    std::fprintf(stderr, "palaver-stt: %s\ntry: palaver-stt --help\n", error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "palaver-stt: %s\n", error.what());
    return 1;
  }
}
