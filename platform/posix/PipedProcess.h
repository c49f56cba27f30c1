// Runs a child process with non-blocking pipes to its standard streams.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/posix/ChildProcess.h"
#include "platform/posix/Descriptor.h"

namespace palaver {

// Describes what a child inherits besides its standard streams.
struct Inheritance {
  std::map<std::string, std::string> environment;  // added to this process's environment
  int descriptor = -1;                             // becomes descriptor 3 of the child; -1 for none
};

// Outcome of a non-blocking read.
enum class ReadOutcome { data, nothingNow, end };

// Starts and controls a program in its own process group, so that Ctrl-C reaches only the host, which then
// ends the session in order. The host must ignore SIGPIPE. Used by one thread at a time; different children
// may be used on different threads.
class PipedProcess {
 public:
  // Starts `command`: the program's path and its arguments. Throws std::system_error when it cannot be
  // started.
  explicit PipedProcess(const std::vector<std::string>& command, const Inheritance& inheritance = {});

  pid_t id() const { return process_->id(); }

  // Descriptors for poll(); -1 when closed.
  int input() const { return input_.get(); }
  int output() const { return output_.get(); }
  int diagnostics() const { return diagnostics_.get(); }

  // Queues bytes for the child's stdin. Drops them once stdin is closed or the child has closed its end.
  void write(std::string_view bytes);
  // Writes as much of the queue as the pipe accepts.
  void flush();
  std::size_t queuedBytes() const { return queue_.size() - written_; }
  // Returns whether the child has closed its stdin.
  bool inputBroken() const { return broken_; }
  // Closes the child's stdin once the queue is empty.
  void closeInput();

  // Reads up to one buffer into `bytes`. Throws std::system_error.
  ReadOutcome readOutput(std::string& bytes) { return read(output_, bytes); }
  ReadOutcome readDiagnostics(std::string& bytes) { return read(diagnostics_, bytes); }

  // Returns the status of a child that has ended, or none while it runs. Never blocks.
  std::optional<ExitStatus> exitStatus() { return process_->exitStatus(); }

  // Sends a signal to a running child.
  void signal(int number) { process_->signal(number); }

 private:
  static ReadOutcome read(Descriptor& descriptor, std::string& bytes);

  std::optional<ChildProcess> process_;
  Descriptor input_;
  Descriptor output_;
  Descriptor diagnostics_;
  std::string queue_;
  std::size_t written_ = 0;  // bytes of queue_ already written
  bool closing_ = false;
  bool broken_ = false;
};

}  // namespace palaver
