// Starts processes of the benchmarks and parses the figures they report.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "platform/posix/ChildProcess.h"
#include "platform/posix/Descriptor.h"

namespace palaver::bench {

// Figures by name, one "name value" line each.
using Report = std::map<std::string, double>;

// Starts a process and checks how it ends.
class Child {
 public:
  // `command`: the program's path and its arguments. The descriptors become its stdin and stdout. Throws
  // std::system_error when it cannot be started.
  Child(const std::vector<std::string>& command, int standardInput, int standardOutput);

  // Waits for the end. Throws std::runtime_error when the status is not 0.
  void wait();

 private:
  std::string name_;
  ChildProcess process_;
};

// Returns the command that runs this program in one of its roles.
std::vector<std::string> roleCommand(std::vector<std::string> role);

// Reads up to the end of the input. Throws std::system_error.
std::string readAll(int descriptor);

// Throws std::runtime_error when the text is empty or holds anything but figures.
Report parseReport(const std::string& text);

}  // namespace palaver::bench
