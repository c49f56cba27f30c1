#include "platform/posix/ChildProcess.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

extern char** environ;

namespace palaver {

namespace {

void check(int error, const char* what) {
  if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

class SpawnActions {
 public:
  explicit SpawnActions(const ChildOptions& options) {
    check(::posix_spawn_file_actions_init(&actions_), "posix_spawn_file_actions_init");
    for (const auto& [number, own] : options.descriptors) {
      if (own >= 0) {
        check(::posix_spawn_file_actions_adddup2(&actions_, own, number), "posix_spawn_file_actions_adddup2");
      } else {
        check(::posix_spawn_file_actions_addclose(&actions_, number), "posix_spawn_file_actions_addclose");
      }
    }
#ifdef __linux__
    if (options.closesFrom)
      check(::posix_spawn_file_actions_addclosefrom_np(&actions_, *options.closesFrom),
            "posix_spawn_file_actions_addclosefrom_np");
#endif
  }
  ~SpawnActions() {
    ::posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;

  const posix_spawn_file_actions_t* get() const {
    return &actions_;
  }

 private:
  posix_spawn_file_actions_t actions_;
};

class SpawnAttributes {
 public:
  explicit SpawnAttributes(const ChildOptions& options) {
    check(::posix_spawnattr_init(&attributes_), "posix_spawnattr_init");
    // These calls have no ::, as they are macros on macOS.
    sigset_t defaults;
    sigemptyset(&defaults);
    for (const int number : options.defaultSignals) sigaddset(&defaults, number);
    sigset_t none;
    sigemptyset(&none);
    ::posix_spawnattr_setsigdefault(&attributes_, &defaults);
    ::posix_spawnattr_setsigmask(&attributes_, &none);
    int flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
    if (options.leadsProcessGroup) {
      ::posix_spawnattr_setpgroup(&attributes_, 0);
      flags |= POSIX_SPAWN_SETPGROUP;
    }
    ::posix_spawnattr_setflags(&attributes_, static_cast<short>(flags));
  }
  ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const auto& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

ExitStatus statusFrom(int status) {
  return WIFSIGNALED(status) ? ExitStatus{0, WTERMSIG(status)} : ExitStatus{WEXITSTATUS(status), 0};
}

}  // namespace

std::string ExitStatus::description() const {
  if (signal != 0) return "signal " + std::to_string(signal) + " (" + ::strsignal(signal) + ")";
  return "exit status " + std::to_string(code);
}

ChildProcess::ChildProcess(const ChildOptions& options) {
  if (options.command.empty()) check(EINVAL, "no program");
  const SpawnActions actions(options);
  const SpawnAttributes attributes(options);
  auto command = options.command;
  if (options.argument0) command.front() = *options.argument0;
  const auto environment = options.environment ? pointersTo(*options.environment) : std::vector<char*>();
  const char* const program = options.command.front().c_str();
  check(::posix_spawnp(&process_, program, actions.get(), attributes.get(), pointersTo(command).data(),
                       options.environment ? environment.data() : environ),
        program);
}

ChildProcess::~ChildProcess() {
  if (exitStatus()) return;
  ::kill(process_, SIGKILL);
  while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

std::optional<ExitStatus> ChildProcess::exitStatus() {
  if (status_) return status_;
  int status = 0;
  if (::waitpid(process_, &status, WNOHANG) == process_) status_ = statusFrom(status);
  return status_;
}

ExitStatus ChildProcess::wait() {
  if (status_) return *status_;
  int status = 0;
  while (::waitpid(process_, &status, 0) < 0)
    if (errno != EINTR) check(errno, "waitpid");
  status_ = statusFrom(status);
  return *status_;
}

void ChildProcess::signal(int number) {
  if (!exitStatus()) ::kill(process_, number);
}

std::vector<std::string> environmentWith(const std::map<std::string, std::string>& variables) {
  std::vector<std::string> all;
  for (char** variable = environ; *variable; ++variable) {
    const std::string_view text(*variable);
    if (!variables.contains(std::string(text.substr(0, text.find('='))))) all.emplace_back(text);
  }
  for (const auto& [name, value] : variables) all.push_back(name + "=" + value);
  return all;
}

}  // namespace palaver
