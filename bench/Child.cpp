#include "bench/Child.h"

#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace palaver::bench {

Child::Child(const std::vector<std::string>& command, int standardInput, int standardOutput)
    : name_(command.front()),
      process_({.command = command,
                .descriptors = {{STDIN_FILENO, standardInput}, {STDOUT_FILENO, standardOutput}}}) {
  if (command.size() > 2) name_ += " " + command[2];
}

void Child::wait() {
  const auto status = process_.wait();
  if (!status.isSuccess()) throw std::runtime_error(name_ + " ended with " + status.description());
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
      throw std::system_error(errno, std::generic_category(), "read");
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
