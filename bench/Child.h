// Starts child processes of the benchmarks, creates their pipes and parses the figures they report.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace palaver::bench {

// Owns a file descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() { close(); }

  int number() const { return number_; }
  void close();

 private:
  int number_ = -1;
};

struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;
};

// Creates a pipe with FD_CLOEXEC. `size`: capacity in bytes, best effort. 0 keeps the system's default.
Pipe makePipe(std::size_t size = 0);

// Figures by name, one "name value" line each.
using Report = std::map<std::string, double>;

// Starts a process. The destructor waits for its end. Throws std::system_error when it cannot be started.
class Child {
 public:
  // `command`: the program's path and its arguments. The descriptors become its stdin and stdout.
  Child(const std::vector<std::string>& command, int standardInput, int standardOutput);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Waits for the end. Throws std::runtime_error when the status is not 0.
  void wait();

 private:
  std::string name_;
  pid_t process_ = -1;
};

// Returns the command that runs this program in one of its roles.
std::vector<std::string> roleCommand(std::vector<std::string> role);

// Reads up to the end of the input. Throws std::system_error.
std::string readAll(int descriptor);

// Throws std::runtime_error when the text is empty or holds anything but figures.
Report parseReport(const std::string& text);

}  // namespace palaver::bench
