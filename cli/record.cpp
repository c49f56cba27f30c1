#include "cli/record.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/ArgumentReader.h"
#include "cli/Recording.h"
#include "cli/findHelper.h"
#include "platform/posix/PipedProcess.h"

namespace palaver::cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* usage =
    R"(usage: palaver-stt record [options] FILE [-- HELPER-ARGUMENT...]

Start this in place of the helper to record a meeting: every byte between host and
helper is passed on, and written to FILE with its time. FILE holds everything that was
said, readable by you alone. It must not exist yet.

  --redact       keep neither words nor audio, only their lengths and loudness
  --helper PATH  helper to run (default: the one beside this program)
  --help         print this help

Exit status: that of the helper; 1 when a signal ended it, 2 invalid usage.
)";

constexpr std::size_t maxQueue = std::size_t{1}
                                 << 20;  // bytes for the helper, after which the host has to wait

struct Arguments {
  std::optional<std::string> file;  // none: the help is wanted
  std::vector<std::string> command{findHelper()};
  bool redact = false;
};

Arguments parse(std::span<const std::string> arguments) {
  Arguments parsed;
  const auto separator = std::ranges::find(arguments, "--");
  const auto own = arguments.first(static_cast<std::size_t>(separator - arguments.begin()));
  parsed.file = readOneFile(own, "file to record to", [&parsed](const std::string& option, auto& reader) {
    if (option == "--helper") {
      parsed.command[0] = reader.value();
    } else if (option == "--redact") {
      parsed.redact = true;
    } else {
      return false;
    }
    return true;
  });
  if (separator != arguments.end())
    parsed.command.insert(parsed.command.end(), separator + 1, arguments.end());
  return parsed;
}

// The helper's process, for the signal handler. -1 for none.
volatile std::sig_atomic_t helperProcess = -1;

void passSignalOn(int number) {
  const int error = errno;
  if (helperProcess > 0) ::kill(static_cast<pid_t>(helperProcess), number);
  errno = error;
}

// Passes bytes between the standard streams and a helper until the helper has ended.
class Relay {
 public:
  explicit Relay(const Arguments& arguments)
      : helper_(arguments.command),
        writer_(*arguments.file, arguments.command, wallClock(), arguments.redact) {}

  int run() {
    handleSignals();
    while (helper_.output() >= 0 || helper_.diagnostics() >= 0 || !forHost_.empty()) pass();
    for (;;) {
      if (const auto status = helper_.exitStatus()) {
        writer_.end(now(), status->description());
        return status->signal == 0 ? status->code : 1;
      }
      ::poll(nullptr, 0, 5);
    }
  }

 private:
  static double wallClock() {
    return std::chrono::duration<double, std::milli>(std::chrono::system_clock::now().time_since_epoch())
        .count();
  }
  double now() const { return std::chrono::duration<double, std::milli>(Clock::now() - start_).count(); }

  void handleSignals() {
    helperProcess = helper_.id();
    struct sigaction action = {};
    action.sa_handler = &passSignalOn;
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(number, &action, nullptr);
    action.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &action, nullptr);
  }

  void pass() {
    const bool takesInput = hostSpeaks_ && helper_.queuedBytes() < maxQueue;
    std::array<pollfd, 5> waits{{{takesInput ? STDIN_FILENO : -1, POLLIN, 0},
                                 {helper_.queuedBytes() > 0 ? helper_.input() : -1, POLLOUT, 0},
                                 {helper_.output(), POLLIN, 0},
                                 {helper_.diagnostics(), POLLIN, 0},
                                 {forHost_.empty() ? -1 : STDOUT_FILENO, POLLOUT, 0}}};
    if (::poll(waits.data(), waits.size(), -1) < 0) return;  // a signal
    if (waits[0].revents != 0) readHost();
    helper_.flush();
    if (helper_.inputBroken()) hostSpeaks_ = false;
    if (waits[2].revents != 0) readHelper();
    if (waits[3].revents != 0) readDiagnostics();
    if (waits[4].revents != 0) writeHost();
  }

  void readHost() {
    std::array<char, 1 << 16> bytes{};
    const auto count = ::read(STDIN_FILENO, bytes.data(), bytes.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (count <= 0) {
      hostSpeaks_ = false;
      helper_.closeInput();
      return;
    }
    const std::string_view piece(bytes.data(), static_cast<std::size_t>(count));
    writer_.add(now(), Speaker::host, piece);
    helper_.write(piece);
  }

  void readHelper() {
    std::string bytes;
    while (helper_.readOutput(bytes) == ReadOutcome::data) {
      writer_.add(now(), Speaker::helper, bytes);
      if (hostListens_) forHost_ += bytes;
    }
  }

  void readDiagnostics() {
    std::string bytes;
    while (helper_.readDiagnostics(bytes) == ReadOutcome::data) {
      writer_.add(now(), Speaker::diagnostics, bytes);
      std::fwrite(bytes.data(), 1, bytes.size(), stderr);
    }
  }

  // Writes as much as a pipe takes without blocking.
  void writeHost() {
    constexpr std::size_t atOnce = 4096;  // POSIX promises room for PIPE_BUF bytes when a pipe is ready
    const auto count = ::write(STDOUT_FILENO, forHost_.data(), std::min(forHost_.size(), atOnce));
    if (count >= 0) {
      forHost_.erase(0, static_cast<std::size_t>(count));
    } else if (errno != EINTR && errno != EAGAIN) {
      hostListens_ = false;
      forHost_.clear();
    }
  }

  PipedProcess helper_;
  RecordingWriter writer_;
  const Clock::time_point start_ = Clock::now();
  std::string forHost_;
  bool hostSpeaks_ = true;
  bool hostListens_ = true;
};

}  // namespace

int record(std::span<const std::string> arguments) {
  const auto parsed = parse(arguments);
  if (!parsed.file) return std::fputs(usage, stdout) < 0 ? 1 : 0;
  return Relay(parsed).run();
}

}  // namespace palaver::cli
