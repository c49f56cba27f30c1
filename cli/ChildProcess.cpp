#include "cli/ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <mutex>
#include <system_error>
#include <utility>

extern char** environ;

namespace palaver::host {

namespace {

void check(int error, const char* what) {
  if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

void setFlags(int descriptor, bool nonBlocking) {
  if (::fcntl(descriptor, F_SETFD, FD_CLOEXEC) < 0) check(errno, "fcntl");
  if (nonBlocking && ::fcntl(descriptor, F_SETFL, O_NONBLOCK) < 0) check(errno, "fcntl");
}

class SpawnActions {
 public:
  SpawnActions() { check(::posix_spawn_file_actions_init(&actions_), "posix_spawn_file_actions_init"); }
  ~SpawnActions() { ::posix_spawn_file_actions_destroy(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;

  void duplicate(int from, int to) {
    check(::posix_spawn_file_actions_adddup2(&actions_, from, to), "posix_spawn_file_actions_adddup2");
  }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

class SpawnAttributes {
 public:
  SpawnAttributes() {
    check(::posix_spawnattr_init(&attributes_), "posix_spawnattr_init");
    // No leading "::": these are macros on macOS.
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);  // ignored by this process
    sigset_t none;
    sigemptyset(&none);
    ::posix_spawnattr_setsigdefault(&attributes_, &defaults);
    ::posix_spawnattr_setsigmask(&attributes_, &none);
    ::posix_spawnattr_setpgroup(&attributes_, 0);
    ::posix_spawnattr_setflags(&attributes_,
                               POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  }
  ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

// Returns this process's environment with additional variables, as "name=value" strings.
std::vector<std::string> environmentWith(const std::map<std::string, std::string>& further) {
  std::vector<std::string> all;
  for (char** variable = environ; *variable; ++variable) {
    const std::string_view text(*variable);
    if (!further.contains(std::string(text.substr(0, text.find('='))))) all.emplace_back(text);
  }
  for (const auto& [name, value] : further) all.push_back(name + "=" + value);
  return all;
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const auto& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

Descriptor::Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this != &other) {
    close();
    descriptor_ = std::exchange(other.descriptor_, -1);
  }
  return *this;
}

void Descriptor::close() {
  if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
}

Pipe makePipe(PipeEnd nonBlockingEnd) {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) < 0) check(errno, "pipe");
  Pipe pipe{Descriptor(ends[0]), Descriptor(ends[1])};
  setFlags(ends[0], nonBlockingEnd == PipeEnd::read);
  setFlags(ends[1], nonBlockingEnd == PipeEnd::write);
  return pipe;
}

std::string ExitStatus::description() const {
  if (signal != 0) return "signal " + std::to_string(signal) + " (" + ::strsignal(signal) + ")";
  return "exit status " + std::to_string(code);
}

ChildProcess::ChildProcess(const std::vector<std::string>& command, const Inheritance& inheritance) {
  if (command.empty()) check(EINVAL, "no program");
  // Starts one child at a time. A child started concurrently would inherit a pipe that is not yet
  // close-on-exec.
  static std::mutex starting;
  const std::scoped_lock lock(starting);
  auto input = makePipe(PipeEnd::write);
  auto output = makePipe(PipeEnd::read);
  auto diagnostics = makePipe(PipeEnd::read);
  SpawnActions actions;
  actions.duplicate(input.readEnd.get(), STDIN_FILENO);
  actions.duplicate(output.writeEnd.get(), STDOUT_FILENO);
  actions.duplicate(diagnostics.writeEnd.get(), STDERR_FILENO);
  if (inheritance.descriptor >= 0) actions.duplicate(inheritance.descriptor, STDERR_FILENO + 1);
  const SpawnAttributes attributes;
  const auto environment = environmentWith(inheritance.environment);
  check(::posix_spawnp(&process_, command.front().c_str(), actions.get(), attributes.get(),
                       pointersTo(command).data(), pointersTo(environment).data()),
        command.front().c_str());
  input_ = std::move(input.writeEnd);
  output_ = std::move(output.readEnd);
  diagnostics_ = std::move(diagnostics.readEnd);
}

ChildProcess::~ChildProcess() {
  if (exitStatus()) return;
  signal(SIGKILL);
  int status = 0;
  while (::waitpid(process_, &status, 0) < 0 && errno == EINTR) {
  }
}

void ChildProcess::write(std::string_view bytes) {
  if (!input_.isOpen() || closing_) return;
  if (written_ >= queue_.size() / 2) queue_.erase(0, std::exchange(written_, 0));
  queue_.append(bytes);
}

void ChildProcess::flush() {
  while (input_.isOpen() && queuedBytes() > 0) {
    const auto count = ::write(input_.get(), queue_.data() + written_, queuedBytes());
    if (count >= 0) {
      written_ += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      return;
    } else if (errno != EINTR) {  // EPIPE: the child no longer reads
      broken_ = true;
      input_.close();
    }
  }
  queue_.clear();
  written_ = 0;
  if (closing_) input_.close();
}

void ChildProcess::closeInput() {
  closing_ = true;
  flush();
}

ReadOutcome ChildProcess::read(Descriptor& descriptor, std::string& bytes) {
  constexpr std::size_t readSize = std::size_t{64} << 10;
  bytes.clear();
  if (!descriptor.isOpen()) return ReadOutcome::end;
  bytes.resize(readSize);
  for (;;) {
    const auto count = ::read(descriptor.get(), bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    const int error = errno;
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    if (count > 0) return ReadOutcome::data;
    if (count < 0 && (error == EAGAIN || error == EWOULDBLOCK)) return ReadOutcome::nothingNow;
    descriptor.close();
    if (count < 0) check(error, "reading from the helper");
    return ReadOutcome::end;
  }
}

std::optional<ExitStatus> ChildProcess::exitStatus() {
  if (status_) return status_;
  int status = 0;
  const auto process = ::waitpid(process_, &status, WNOHANG);
  if (process != process_) return std::nullopt;
  status_ = WIFSIGNALED(status) ? ExitStatus{0, WTERMSIG(status)} : ExitStatus{WEXITSTATUS(status), 0};
  return status_;
}

void ChildProcess::signal(int number) {
  if (!exitStatus()) ::kill(process_, number);
}

}  // namespace palaver::host
