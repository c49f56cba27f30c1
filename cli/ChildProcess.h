// Runs a child process with non-blocking pipes to its standard streams.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace palaver::host {

// Owns a file descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  Descriptor(Descriptor&& other) noexcept;
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor() { close(); }

  int get() const { return descriptor_; }  // -1 when closed
  bool isOpen() const { return descriptor_ >= 0; }
  void close();

 private:
  int descriptor_ = -1;
};

// Creates a pipe, close-on-exec at both ends and non-blocking at the given end. Throws std::system_error.
struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;
};
enum class PipeEnd { read, write };
Pipe makePipe(PipeEnd nonBlockingEnd);

// Describes how a child ended.
struct ExitStatus {
  int code = 0;    // argument of exit(); 0 after a signal
  int signal = 0;  // the terminating signal, or 0

  bool isSuccess() const { return code == 0 && signal == 0; }
  std::string description() const;  // "exit status 3", "signal 9 (Killed)"
};

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
class ChildProcess {
 public:
  // Starts `command`: the program's path and its arguments. Throws std::system_error when it cannot be
  // started.
  explicit ChildProcess(const std::vector<std::string>& command, const Inheritance& inheritance = {});

  // Kills a running child (SIGKILL) and waits for it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t id() const { return process_; }

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
  std::optional<ExitStatus> exitStatus();

  // Sends a signal to a running child.
  void signal(int number);

 private:
  static ReadOutcome read(Descriptor& descriptor, std::string& bytes);

  pid_t process_ = -1;
  std::optional<ExitStatus> status_;
  Descriptor input_;
  Descriptor output_;
  Descriptor diagnostics_;
  std::string queue_;
  std::size_t written_ = 0;  // bytes of queue_ already written
  bool closing_ = false;
  bool broken_ = false;
};

}  // namespace palaver::host
