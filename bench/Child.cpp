#include "bench/Child.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace palaver::bench {

namespace {

[[noreturn]] void fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

}  // namespace

void Descriptor::close() {
  if (number_ >= 0) ::close(std::exchange(number_, -1));
}

Pipe makePipe(std::size_t size) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) fail(errno, "pipe");
  if (size > 0) ::fcntl(ends[1], F_SETPIPE_SZ, static_cast<int>(size));
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

Child::Child(const std::vector<std::string>& command, int standardInput, int standardOutput)
    : name_(command.front()) {
  if (command.size() > 2) name_ += " " + command[2];
  std::vector<char*> arguments;
  for (const auto& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, standardInput, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, standardOutput, STDOUT_FILENO);
  const int error =
      ::posix_spawn(&process_, arguments.front(), &actions, nullptr, arguments.data(), ::environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) fail(error, name_);
}

Child::~Child() {
  if (process_ > 0) ::waitpid(process_, nullptr, 0);
}

void Child::wait() {
  int status = 0;
  if (::waitpid(std::exchange(process_, -1), &status, 0) < 0) fail(errno, "waitpid");
  if (status != 0) throw std::runtime_error(name_ + " failed with wait status " + std::to_string(status));
}

std::vector<std::string> roleCommand(std::vector<std::string> role) {
  role.insert(role.begin(), {"/proc/self/exe", "--as"});
  return role;
}

std::string readAll(int descriptor) {
  std::string text;
  char some[4096];
  for (;;) {
    const ssize_t count = ::read(descriptor, some, sizeof some);
    if (count == 0) return text;
    if (count > 0) {
      text.append(some, static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      fail(errno, "read");
    }
  }
}

Report parseReport(const std::string& text) {
  Report report;
  std::istringstream lines(text);
  std::string name;
  double value;
  while (lines >> name >> value) report[name] = value;
  if (report.empty() || !lines.eof()) throw std::runtime_error("not a report: " + text);
  return report;
}

}  // namespace palaver::bench
