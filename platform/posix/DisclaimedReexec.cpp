#include "platform/posix/DisclaimedReexec.h"

#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "platform/Responsibility.h"

extern "C" char** environ;

namespace palaver {

namespace {

constexpr std::array forwardedSignals{SIGTERM, SIGINT, SIGHUP};

// Written once, before the signal handler that reads it is installed.
static_assert(sizeof(std::sig_atomic_t) >= sizeof(pid_t));
volatile std::sig_atomic_t disclaimedChildPid = -1;

extern "C" void forwardToChild(int signal) {
  const int interrupted = errno;  // the interrupted waitpid() still has to read its own errno
  if (disclaimedChildPid > 0) ::kill(disclaimedChildPid, signal);
  errno = interrupted;
}

void installForwarding() {
  struct sigaction action {};
  action.sa_handler = forwardToChild;
  sigemptyset(&action.sa_mask);
  for (const int signal : forwardedSignals) ::sigaction(signal, &action, nullptr);
}

// Blocks the forwarded signals during its lifetime. A signal that arrives between the child's start and the
// installation of the handler would end this process only and orphan the child.
class HeldSignals {
 public:
  HeldSignals() {
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : forwardedSignals) sigaddset(&held, signal);
    ::pthread_sigmask(SIG_BLOCK, &held, &before_);
  }
  ~HeldSignals() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  HeldSignals(const HeldSignals&) = delete;
  HeldSignals& operator=(const HeldSignals&) = delete;

  // Returns the signal mask from before the construction.
  const sigset_t& before() const { return before_; }

 private:
  sigset_t before_{};
};

class SpawnAttributes {
 public:
  SpawnAttributes() : isInitialized_(posix_spawnattr_init(&attributes_) == 0) {}
  ~SpawnAttributes() {
    if (isInitialized_) posix_spawnattr_destroy(&attributes_);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  bool isInitialized() const { return isInitialized_; }
  posix_spawnattr_t* get() { return &attributes_; }

  bool setSignalMask(const sigset_t& mask) {
    short flags = 0;
    return posix_spawnattr_getflags(&attributes_, &flags) == 0 &&
           posix_spawnattr_setflags(&attributes_, static_cast<short>(flags | POSIX_SPAWN_SETSIGMASK)) == 0 &&
           posix_spawnattr_setsigmask(&attributes_, &mask) == 0;
  }

 private:
  posix_spawnattr_t attributes_{};
  const bool isInitialized_;
};

// Searches all entries instead of calling getenv. If the environment already holds the variable with another
// value, the marker is a second entry of the same name, and which one getenv returns depends on the system. A
// child that misses the marker would start another child.
bool isDisclaimed() {
  for (char** entry = environ; entry && *entry; ++entry)
    if (std::strcmp(*entry, disclaimedMarker) == 0) return true;
  return false;
}

std::vector<char*> environmentWithMarker(std::string& marker) {
  std::vector<char*> entries;
  for (char** entry = environ; entry && *entry; ++entry) entries.push_back(*entry);
  entries.push_back(marker.data());
  entries.push_back(nullptr);
  return entries;
}

// Starts the child and the forwarding of signals to it. Returns none when the system cannot do that.
std::optional<pid_t> startDisclaimedChild(int argumentCount, char** arguments,
                                          const Responsibility& responsibility) {
  const auto setDisclaim = responsibility.findSetDisclaim();
  if (!setDisclaim) return std::nullopt;
  SpawnAttributes attributes;
  if (!attributes.isInitialized() || setDisclaim(attributes.get(), 1) != 0) return std::nullopt;

  auto executable = responsibility.executablePath();
  if (!executable && argumentCount > 0) executable = arguments[0];
  if (!executable) return std::nullopt;
  std::vector<char*> childArguments(arguments, arguments + argumentCount);
  childArguments.push_back(nullptr);
  std::string marker = disclaimedMarker;
  const auto childEnvironment = environmentWithMarker(marker);

  const HeldSignals held;
  if (!attributes.setSignalMask(held.before())) return std::nullopt;
  pid_t child = -1;
  if (::posix_spawn(&child, executable->c_str(), nullptr, attributes.get(), childArguments.data(),
                    childEnvironment.data()) != 0)
    return std::nullopt;
  disclaimedChildPid = child;
  installForwarding();
  return child;
}

// Waits for the child to end. Returns its exit status, or 1 when a signal ended it.
int waitForEnd(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace

void reexecDisclaimedIfNeeded(int argumentCount, char** arguments, const Responsibility& responsibility) {
  if (isDisclaimed()) return;
  if (const auto child = startDisclaimedChild(argumentCount, arguments, responsibility))
    std::_Exit(waitForEnd(*child));
}

}  // namespace palaver
