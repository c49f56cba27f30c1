#include "tests/support/HelperProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace palaver {

namespace {

using Clock = std::chrono::steady_clock;

void check(bool good, const char* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

struct Ends {
  int child = -1, host = -1;
};

void setFlag(int descriptor, int flag) {
  check(::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | flag) == 0, "fcntl");
}

Ends makeEnds(const HelperProcess::Stream& stream, bool childReads) {
  Ends ends;
  std::array<int, 2> pair{};
  switch (stream.kind) {
    case HelperProcess::Stream::Kind::closed:
      return ends;
    case HelperProcess::Stream::Kind::file:
      ends.child = ::open(stream.path.c_str(), (childReads ? O_RDONLY : O_WRONLY) | O_CLOEXEC);
      check(ends.child >= 0, "open");
      return ends;
    case HelperProcess::Stream::Kind::pipe:
      check(::pipe(pair.data()) == 0, "pipe");
      ends = childReads ? Ends{pair[0], pair[1]} : Ends{pair[1], pair[0]};
      break;
    case HelperProcess::Stream::Kind::socket:
      check(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()) == 0, "socketpair");
      ends = {pair[0], pair[1]};
      break;
  }
  for (const int descriptor : pair) check(::fcntl(descriptor, F_SETFD, FD_CLOEXEC) == 0, "fcntl");
  setFlag(ends.host, O_NONBLOCK);
  if (stream.nonBlocking) setFlag(ends.child, O_NONBLOCK);
  return ends;
}

void closeOnce(int& descriptor) {
  if (descriptor >= 0) ::close(descriptor);
  descriptor = -1;
}

// Waits until the descriptor is ready. False after the deadline.
bool await(int descriptor, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd waiting{.fd = descriptor, .events = events, .revents = 0};
    const int ready = ::poll(&waiting, 1, static_cast<int>(std::max<long long>(left, 0)));
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> all;
  for (auto& text : texts) all.push_back(text.data());
  all.push_back(nullptr);
  return all;
}

}  // namespace

HelperProcess::HelperProcess(const Options& options) {
  std::signal(SIGPIPE, SIG_IGN);  // so that send() fails when the helper has exited
  Ends input = makeEnds(options.input, true);
  Ends output = makeEnds(options.output, false);
  Ends error = makeEnds(options.error, false);
  Ends exitPipe = makeEnds({}, false);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const std::array<int, 4> childEnds{input.child, output.child, error.child, exitPipe.child};
  for (int number = 0; number < 4; ++number) {
    if (const int descriptor = childEnds[static_cast<std::size_t>(number)]; descriptor >= 0) {
      posix_spawn_file_actions_adddup2(&actions, descriptor, number);
    } else {
      posix_spawn_file_actions_addclose(&actions, number);
    }
  }
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  sigset_t defaults, blocked;
  sigemptyset(&defaults);
  sigemptyset(&blocked);
  for (const int number : {SIGPIPE, SIGTERM, SIGINT, SIGHUP}) sigaddset(&defaults, number);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setsigmask(&attributes, &blocked);

  std::vector<std::string> arguments{options.argument0};
  arguments.insert(arguments.end(), options.arguments.begin(), options.arguments.end());
  std::vector<std::string> environment = options.environment;
  const char* const program = options.program.empty() ? PALAVER_HELPER_PATH : options.program.c_str();
  const int failure = ::posix_spawn(&pid_, program, &actions, &attributes, pointers(arguments).data(),
                                    pointers(environment).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  for (int descriptor : childEnds) closeOnce(descriptor);
  input_ = input.host;
  output_ = output.host;
  error_ = error.host;
  exitPipe_ = exitPipe.host;
  if (failure != 0) throw std::system_error(failure, std::generic_category(), "posix_spawn");
}

HelperProcess::~HelperProcess() {
  if (!end_ && pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  for (int* descriptor : {&input_, &output_, &error_, &exitPipe_}) closeOnce(*descriptor);
}

bool HelperProcess::send(std::string_view bytes) {
  const auto deadline = Clock::now() + helperDeadline;
  while (!bytes.empty()) {
    const ssize_t count = ::write(input_, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      if (!await(input_, POLLOUT, deadline)) return false;
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

void HelperProcess::closeInput() {
  closeOnce(input_);
}

void HelperProcess::closeOutput() {
  closeOnce(output_);
}

// Waits for output and buffers it. False at the end or after the deadline.
bool HelperProcess::fill() {
  const auto bytes = readSome(std::size_t{64} << 10);
  unread_ += bytes;
  return !bytes.empty();
}

std::string HelperProcess::readSome(std::size_t most) {
  if (output_ < 0) return {};
  std::string bytes(most, '\0');
  const auto deadline = Clock::now() + helperDeadline;
  for (;;) {
    const ssize_t count = ::read(output_, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.resize(static_cast<std::size_t>(count));
      return bytes;
    }
    if (errno == EAGAIN) {
      if (!await(output_, POLLIN, deadline)) return {};
    } else if (errno != EINTR) {
      return {};
    }
  }
}

std::optional<std::string> HelperProcess::readLine() {
  for (std::size_t searched = 0;;) {
    const auto end = unread_.find('\n', searched);
    if (end != std::string::npos) {
      std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      return line;
    }
    searched = unread_.size();
    if (!fill()) return std::nullopt;
  }
}

nlohmann::json HelperProcess::readEvent() {
  const auto line = readLine();
  return nlohmann::json::parse(line.value_or(""), nullptr, false);
}

std::string HelperProcess::readRest() {
  while (fill()) {
  }
  return std::exchange(unread_, {});
}

std::vector<nlohmann::json> HelperProcess::readEvents() {
  const auto text = readRest();
  std::vector<nlohmann::json> events;
  for (std::size_t at = 0; at < text.size();) {
    const auto end = std::min(text.find('\n', at), text.size());
    events.push_back(nlohmann::json::parse(text.substr(at, end - at), nullptr, false));
    at = end + 1;
  }
  return events;
}

std::optional<HelperProcess::End> HelperProcess::wait() {
  if (end_) return end_;
  const auto deadline = Clock::now() + helperDeadline;
  char byte = 0;
  while (::read(exitPipe_, &byte, 1) < 0)
    if (!await(exitPipe_, POLLIN, deadline)) return std::nullopt;
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0)
    if (errno != EINTR) return std::nullopt;
  end_ = WIFEXITED(status) ? exited(WEXITSTATUS(status)) : killedBy(WTERMSIG(status));
  char bytes[4096];
  for (ssize_t count = 0; error_ >= 0 && (count = ::read(error_, bytes, sizeof bytes)) > 0;)
    errorText_.append(bytes, static_cast<std::size_t>(count));
  return end_;
}

std::size_t HelperProcess::residentMemory() const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  for (std::string word; status >> word;)
    if (word == "VmRSS:") {
      std::size_t kibibytes = 0;
      status >> kibibytes;
      return kibibytes * 1024;
    }
  return 0;
}

}  // namespace palaver
