#include "cli/transcribe.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/HostSession.h"
#include "cli/TranscribeArguments.h"
#include "cli/TranscriptDisplay.h"
#include "cli/findHelper.h"
#include "cli/writeFile.h"
#include "platform/audio/SoundFileSource.h"

namespace palaver::cli {

namespace {

std::atomic<HostSession*> runningSession = nullptr;  // for the signal handler

// The first signal ends the session in order, the second one ends the program immediately.
void interruptSession(int) {
  const int error = errno;
  if (auto* const session = runningSession.load()) session->interrupt();
  errno = error;
}

void handleSignals() {
  struct sigaction action = {};
  action.sa_handler = &interruptSession;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(number, &action, nullptr);
  action.sa_handler = SIG_IGN;
  action.sa_flags = 0;
  ::sigaction(SIGPIPE, &action, nullptr);
}

// Writes to stdout. Ends the session when its reader has closed it.
void output(std::string_view bytes) {
  if (writeAll(STDOUT_FILENO, bytes)) return;
  if (auto* const session = runningSession.load()) session->interrupt();
}

std::size_t terminalColumns() {
  winsize size{};
  return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

// Writes events unchanged to stdout and everything else to stderr.
class EventLines final : public HostObserver {
 public:
  void onEvent(std::string_view line, const nlohmann::json&) override { output(std::string(line) + "\n"); }
  void onDiagnostic(std::string_view line) override { print("", line); }
  void onProblem(std::string_view message) override { print("error: ", message); }
  void onStreamStart(double) override {}
  void onProgress(double, double) override {}

 private:
  static void print(const char* prefix, std::string_view text) {
    std::fprintf(stderr, "%s%.*s\n", prefix, static_cast<int>(text.size()), text.data());
  }
};

bool runSession(const TranscribeArguments& arguments, HostObserver& observer) {
  auto remote = std::make_unique<SoundFileSource>(arguments.remote);
  auto self = arguments.self ? std::make_unique<SoundFileSource>(*arguments.self) : nullptr;
  HostConfiguration configuration;
  configuration.helper = {arguments.helper ? *arguments.helper : findHelper()};
  configuration.helper.insert(configuration.helper.end(), arguments.helperArguments.begin(),
                              arguments.helperArguments.end());
  configuration.locale = arguments.locale;
  configuration.vocabulary = arguments.vocabulary;
  configuration.speed = arguments.speed;
  HostSession session(std::move(configuration), std::move(remote), std::move(self), observer);
  runningSession = &session;
  const bool ok = session.run();
  runningSession = nullptr;
  return ok;
}

int run(const TranscribeArguments& arguments) {
  if (arguments.json) {
    EventLines lines;
    return runSession(arguments, lines) ? 0 : 1;
  }
  TranscriptDisplay::Style style;
  style.terminal = ::isatty(STDOUT_FILENO) == 1;
  style.latency = arguments.speed == 1;
  TranscriptDisplay display(style, &output, &terminalColumns);
  const bool ok = runSession(arguments, display);
  display.finish(ok);
  return ok ? 0 : 1;
}

}  // namespace

int transcribe(std::span<const std::string> arguments) {
  const auto parsed = parseTranscribeArguments(arguments);
  if (parsed.help) return writeAll(STDOUT_FILENO, transcribeUsage) ? 0 : 1;
  handleSignals();
  return run(parsed);
}

}  // namespace palaver::cli
