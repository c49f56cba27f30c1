// Re-executes itself like the helper, on a system whose functions the test configures, and reports what it
// observes. After a re-execution it runs twice: as the wrapper, and as the child that does the work.
//
// It writes one JSON object per line:
//   {"when": "before", ...}  the process as it was started, before the call; "after" the same after it
//   {"when": "ready"}        it waits for commands
//   {"call": name}           one call of a system function
//   {"signal": number}       one signal, handled by the process that does the work
//
// It answers these lines of standard input. The end of its input ends it with status 99.
//   exit N            ends with the status N
//   die N             ends by the signal N
//   write D TEXT      writes the text to the descriptor D and answers {"written": count}
//   parent            answers {"parent": process id}
//
// The environment configures the system. All variables except REEXEC_DISCLAIM and REEXEC_EXECUTABLE affect
// the wrapper only.
//   REEXEC_DISCLAIM     "missing", or the number to return
//   REEXEC_INIT, REEXEC_SPAWN, REEXEC_WAIT
//                       the number that the function of that name fails with; waiting fails once
//   REEXEC_EXECUTABLE   "none", or the path of the bundle's executable
//   REEXEC_RAISE        a signal that arrives right after the child has been spawned
//   REEXEC_BLOCK, REEXEC_IGNORE
//                       a signal that is blocked or ignored when the wrapper starts
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Responsibility.h"
#include "platform/posix/DisclaimedReexec.h"

namespace {

using nlohmann::json;

constexpr std::array signals{SIGTERM, SIGINT, SIGHUP};

// Acquires exclusive output with F_WRLCK and releases it with F_UNLCK.
void lockOutput(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  while (::fcntl(STDOUT_FILENO, F_SETLKW, &lock) < 0)
    if (errno != EINTR) std::_Exit(95);
}

// Writes one line with one write, so that a signal handler cannot split it. Wrapper and child share a pipe,
// which accepts a long line in pieces, so they lock it in turn.
void writeLine(const json& object) {
  const std::string line = object.dump() + "\n";
  lockOutput(F_WRLCK);
  if (::write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::_Exit(98);
  lockOutput(F_UNLCK);
}

std::optional<std::string> setting(const char* name) {
  const char* const value = std::getenv(name);
  if (!value) return std::nullopt;
  return value;
}

int number(const char* name) {
  return std::atoi(setting(name).value_or("0").c_str());
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

int setDisclaim(posix_spawnattr_t* attributes, int disclaim) {
  writeLine({{"call", "disclaim"}, {"attributes", attributes != nullptr}, {"disclaim", disclaim}});
  return number("REEXEC_DISCLAIM");
}

class StandIn final : public palaver::Responsibility {
 public:
  SetDisclaim findSetDisclaim() const override {
    return setting("REEXEC_DISCLAIM") == "missing" ? nullptr : setDisclaim;
  }
  std::optional<std::string> executablePath() const override {
    const auto path = setting("REEXEC_EXECUTABLE");
    return path == "none" ? std::nullopt : path;
  }
};

std::string linkTarget(const std::string& path) {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
  return length < 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(length));
}

json openDescriptors() {
  json descriptors = json::object();
  DIR* const directory = ::opendir("/proc/self/fd");
  if (!directory) std::_Exit(97);
  const std::string own = std::to_string(::dirfd(directory));
  while (const dirent* entry = ::readdir(directory)) {
    const std::string name = entry->d_name;
    if (name != "." && name != ".." && name != own) descriptors[name] = linkTarget("/proc/self/fd/" + name);
  }
  ::closedir(directory);
  return descriptors;
}

// Describes what the process inherited. The settings of the system are part of its environment.
json observed(const char* when, int argumentCount, char** arguments) {
  json object{{"when", when}, {"pid", ::getpid()}, {"executable", linkTarget("/proc/self/exe")}};
  object["directory"] = linkTarget("/proc/self/cwd");
  object["arguments"] = std::vector<std::string>(arguments, arguments + argumentCount);
  for (char** entry = environ; *entry; ++entry) object["environment"].push_back(*entry);
  object["descriptors"] = openDescriptors();
  sigset_t mask;
  ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  object["blocked"] = json::array();
  object["ignored"] = json::array();
  for (int signal = 1; signal < 32; ++signal) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    if (sigismember(&mask, signal) == 1) object["blocked"].push_back(signal);
    if (action.sa_handler == SIG_IGN) object["ignored"].push_back(signal);
  }
  return object;
}

extern "C" void reportSignal(int signal) {
  const int interrupted = errno;
  std::array<char, 16> line{'{', '"', 's', 'i', 'g', 'n', 'a', 'l', '"', ':', '0', '0', '}', '\n'};
  // JSON numbers have no leading zero.
  line[10] = signal < 10 ? ' ' : static_cast<char>('0' + signal / 10);
  line[11] = static_cast<char>('0' + signal % 10);
  if (::write(STDOUT_FILENO, line.data(), 14) != 14) std::_Exit(96);
  errno = interrupted;
}

void handleSignals() {
  struct sigaction action {};
  action.sa_handler = reportSignal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (const int signal : signals) sigaddset(&action.sa_mask, signal);
  for (const int signal : signals) ::sigaction(signal, &action, nullptr);
}

[[noreturn]] void die(int signal) {
  ::signal(signal, SIG_DFL);
  ::kill(::getpid(), signal);
  for (;;) ::pause();
}

std::optional<std::string> readLine() {
  std::string line;
  for (char byte = 0;;) {
    const ssize_t count = ::read(STDIN_FILENO, &byte, 1);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return std::nullopt;
    if (byte == '\n') return line;
    line += byte;
  }
}

[[noreturn]] void obey() {
  while (const auto line = readLine()) {
    std::istringstream words(*line);
    std::string word, text;
    int value = 0;
    words >> word >> value >> text;
    if (word == "exit") std::_Exit(value);
    if (word == "die") die(value);
    if (word == "parent") writeLine({{"parent", ::getppid()}});
    if (word == "write") writeLine({{"written", ::write(value, text.data(), text.size())}});
  }
  std::_Exit(99);
}

bool isWrapper() {
  for (char** entry = environ; *entry; ++entry)
    if (std::string_view(*entry) == palaver::disclaimedMarker) return false;
  return true;
}

}  // namespace

// Replaces functions of the C library.
extern "C" {

int posix_spawnattr_init(posix_spawnattr_t* attributes) noexcept {
  writeLine({{"call", "init"}});
  if (const int failure = number("REEXEC_INIT")) return failure;
  return next<decltype(posix_spawnattr_init)>("posix_spawnattr_init")(attributes);
}

int posix_spawnattr_destroy(posix_spawnattr_t* attributes) noexcept {
  writeLine({{"call", "destroy"}});
  return next<decltype(posix_spawnattr_destroy)>("posix_spawnattr_destroy")(attributes);
}

int posix_spawn(pid_t* child, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const* arguments, char* const* environment) {
  writeLine({{"call", "spawn"}, {"path", path}, {"actions", actions != nullptr}});
  if (const int failure = number("REEXEC_SPAWN")) return failure;
  const int failure =
      next<decltype(posix_spawn)>("posix_spawn")(child, path, actions, attributes, arguments, environment);
  if (const int signal = number("REEXEC_RAISE")) ::kill(::getpid(), signal);
  return failure;
}

pid_t waitpid(pid_t child, int* status, int options) {
  static bool failed = false;
  if (const int failure = number("REEXEC_WAIT"); failure != 0 && !failed) {
    failed = true;
    errno = failure;
    return -1;
  }
  return next<decltype(waitpid)>("waitpid")(child, status, options);
}
}

int main(int argumentCount, char** arguments) {
  if (isWrapper()) {
    if (const int signal = number("REEXEC_IGNORE")) ::signal(signal, SIG_IGN);
    sigset_t mask;
    sigemptyset(&mask);
    if (const int signal = number("REEXEC_BLOCK")) sigaddset(&mask, signal);
    ::pthread_sigmask(SIG_BLOCK, &mask, nullptr);
  }
  writeLine(observed("before", argumentCount, arguments));
  palaver::reexecDisclaimedIfNeeded(argumentCount, arguments, StandIn());
  writeLine(observed("after", argumentCount, arguments));
  handleSignals();
  writeLine({{"when", "ready"}});
  obey();
}
