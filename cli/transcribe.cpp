#include "cli/transcribe.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/HostSession.h"
#include "cli/TranscribeArguments.h"
#include "cli/Transcript.h"
#include "cli/TranscriptDisplay.h"
#include "cli/findHelper.h"
#include "cli/writeFile.h"
#include "platform/audio/SoundFileSource.h"
#include "platform/audio/SoundStreamSource.h"

namespace palaver::cli {

namespace {

std::atomic<HostSession*> runningSession = nullptr;  // for the signal handler
std::atomic<bool> readsStream = false;               // a side comes from standard input

// The first signal ends the session in order, the second one ends the program immediately.
void interruptSession(int) {
  const int error = errno;
  if (auto* const session = runningSession.load()) {
    if (readsStream) {
      session->stopAudio();
    } else {
      session->interrupt();
    }
  }
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

void outputErrors(std::string_view bytes) {
  writeAll(STDERR_FILENO, bytes);
}

std::size_t columnsOf(int terminal) {
  winsize size{};
  return ::ioctl(terminal, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}
std::size_t outputColumns() {
  return columnsOf(STDOUT_FILENO);
}
std::size_t errorColumns() {
  return columnsOf(STDERR_FILENO);
}

// Writes problems to stderr, and with `events` the helper's events unchanged to stdout.
class PlainLines final : public HostObserver {
 public:
  explicit PlainLines(bool events) : events_(events) {}

  void onEvent(std::string_view line, const nlohmann::json& event) override {
    if (events_) return output(std::string(line) + "\n");
    const auto message = event.find("message");
    if (event.value("type", nlohmann::json()) == "helper.error" && message != event.end() &&
        message->is_string())
      print("error: ", message->get<std::string>());
  }
  void onDiagnostic(std::string_view line) override { print("", line); }
  void onProblem(std::string_view message) override { print("error: ", message); }
  void onStreamStart(double) override {}
  void onProgress(double, double) override {}

 private:
  static void print(const char* prefix, std::string_view text) {
    std::fprintf(stderr, "%s%.*s\n", prefix, static_cast<int>(text.size()), text.data());
  }

  bool events_;
};

// Passes everything on to two observers.
class BothObservers final : public HostObserver {
 public:
  BothObservers(HostObserver& first, HostObserver& second) : first_(first), second_(second) {}

  void onEvent(std::string_view line, const nlohmann::json& event) override {
    first_.onEvent(line, event);
    second_.onEvent(line, event);
  }
  void onDiagnostic(std::string_view line) override {
    first_.onDiagnostic(line);
    second_.onDiagnostic(line);
  }
  void onProblem(std::string_view message) override {
    first_.onProblem(message);
    second_.onProblem(message);
  }
  void onStreamStart(double startedAt) override {
    first_.onStreamStart(startedAt);
    second_.onStreamStart(startedAt);
  }
  void onProgress(double position, double total) override {
    first_.onProgress(position, total);
    second_.onProgress(position, total);
  }

 private:
  HostObserver& first_;
  HostObserver& second_;
};

std::unique_ptr<SoundSource> openSource(const std::string& path, const std::optional<RawFormat>& raw) {
  if (path != standardInputPath)
    return std::make_unique<SoundFileSource>(
        path, path.ends_with(".raw") ? raw.value_or(RawFormat{}) : RawFormat{});
  if (::isatty(STDIN_FILENO) == 1)
    throw std::runtime_error(
        "standard input is a terminal; pipe sound into it: arecord -f S16_LE -r 16000 | palaver-stt "
        "transcribe -");
  return std::make_unique<SoundStreamSource>(STDIN_FILENO, "standard input", raw);
}

bool runSession(const TranscribeArguments& arguments, HostObserver& observer) {
  auto remote = openSource(arguments.remote, arguments.raw);
  auto self = arguments.self ? openSource(*arguments.self, arguments.raw) : nullptr;
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

// Shows the transcript on stdout, and live lines on stderr when that is a terminal.
bool show(const TranscribeArguments& arguments) {
  const bool isTerminal = ::isatty(STDOUT_FILENO) == 1;
  const bool isLive = ::isatty(STDERR_FILENO) == 1;
  TranscriptDisplay::Style style;
  style.colours = isTerminal;
  style.partials = !isTerminal || !isLive;
  style.latency = arguments.speed == 1;
  TranscriptDisplay display(style, &output, &outputColumns,
                            isLive ? TranscriptDisplay::Output(&outputErrors) : nullptr, &errorColumns);
  const bool ok = runSession(arguments, display);
  display.finish(ok);
  return ok;
}

// Runs the session for an observer that keeps stdout or a file. Shows it on stderr when that is a terminal.
bool runBeside(const TranscribeArguments& arguments, HostObserver& observer) {
  if (::isatty(STDERR_FILENO) != 1) {
    PlainLines problems(false);
    BothObservers both(observer, problems);
    return runSession(arguments, both);
  }
  TranscriptDisplay::Style style;
  style.colours = true;
  style.partials = false;
  style.latency = arguments.speed == 1;
  TranscriptDisplay display(style, &outputErrors, &errorColumns, &outputErrors, &errorColumns);
  BothObservers both(observer, display);
  const bool ok = runSession(arguments, both);
  display.finish(ok);
  return ok;
}

bool writeText(const TranscribeArguments& arguments) {
  PrivateFile file(*arguments.output);
  TranscriptDisplay::Style style;
  style.partials = false;
  style.latency = arguments.speed == 1;
  TranscriptDisplay display(
      style, [&file](std::string_view bytes) { file.write(bytes); }, [] { return std::size_t{80}; });
  const bool ok = runBeside(arguments, display);
  display.finish(ok);
  return ok;
}

// Writes what was understood also when the session failed.
bool writeTranscript(const TranscribeArguments& arguments) {
  std::optional<PrivateFile> file;
  if (arguments.output) file.emplace(*arguments.output);
  Transcript transcript(arguments.locale);
  const bool ok = runBeside(arguments, transcript);
  const auto text = transcript.written(arguments.format);
  if (file) {
    file->write(text);
  } else if (!writeAll(STDOUT_FILENO, text)) {
    return false;
  }
  return ok;
}

bool run(const TranscribeArguments& arguments) {
  readsStream = arguments.readsStandardInput();
  if (arguments.json) {
    PlainLines lines(true);
    return runSession(arguments, lines);
  }
  if (arguments.format != TranscriptFormat::text) return writeTranscript(arguments);
  return arguments.output ? writeText(arguments) : show(arguments);
}

}  // namespace

int transcribe(std::span<const std::string> arguments) {
  const auto parsed = parseTranscribeArguments(arguments);
  if (parsed.help) return writeAll(STDOUT_FILENO, transcribeUsage) ? 0 : 1;
  handleSignals();
  return run(parsed) ? 0 : 1;
}

}  // namespace palaver::cli
