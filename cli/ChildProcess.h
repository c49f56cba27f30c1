// A child process with pipes to its standard streams, none of which ever blocks.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace palaver::host {

// A descriptor that is closed with its owner.
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

// The two ends of a pipe, both closed on exec; the end named is non-blocking. Throws std::system_error.
struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;
};
enum class PipeEnd { read, write };
Pipe makePipe(PipeEnd nonBlockingEnd);

// How a child ended.
struct ExitStatus {
  int code = 0;    // of exit(); 0 when a signal ended it
  int signal = 0;  // that ended it, or 0

  bool isSuccess() const { return code == 0 && signal == 0; }
  std::string description() const;  // "exit status 3", "signal 9 (Killed)"
};

// What a child gets beside its standard streams.
struct Inheritance {
  std::map<std::string, std::string> environment;  // added to this process's own
  int descriptor = -1;                             // this one becomes the child's number 3; -1 for none
};

// What a read from the child gave.
enum class ReadOutcome { data, nothingNow, end };

// Runs a program. The child leads a process group of its own, so that an interrupt from the keyboard ends the
// host's session in order rather than the child in the middle of it. The host must ignore SIGPIPE. Used by
// one thread at a time; several children may be used by several threads.
class ChildProcess {
 public:
  // Starts `command`: the program's path and its arguments. Throws std::system_error when it cannot be run.
  explicit ChildProcess(const std::vector<std::string>& command, const Inheritance& inheritance = {});

  // Ends a child that still runs (SIGKILL) and waits for it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t id() const { return process_; }

  // For poll(); -1 when closed.
  int input() const { return input_.get(); }
  int output() const { return output_.get(); }
  int diagnostics() const { return diagnostics_.get(); }

  // Queues bytes for the child's standard input. They are dropped once the input is closed or the child has
  // closed its end.
  void write(std::string_view bytes);
  // Writes as much of the queue as the pipe takes now.
  void flush();
  std::size_t queuedBytes() const { return queue_.size() - written_; }
  // The child no longer reads its standard input.
  bool inputBroken() const { return broken_; }
  // Closes the child's standard input once the queue has been written.
  void closeInput();

  // Reads what there is, up to the buffer's size; sets `bytes` to it. Throws std::system_error.
  ReadOutcome readOutput(std::string& bytes) { return read(output_, bytes); }
  ReadOutcome readDiagnostics(std::string& bytes) { return read(diagnostics_, bytes); }

  // The status of a child that has ended, or none while it runs. Never blocks.
  std::optional<ExitStatus> exitStatus();

  // Sends a signal to the child, if it still runs.
  void signal(int number);

 private:
  static ReadOutcome read(Descriptor& descriptor, std::string& bytes);

  pid_t process_ = -1;
  std::optional<ExitStatus> status_;
  Descriptor input_;
  Descriptor output_;
  Descriptor diagnostics_;
  std::string queue_;
  std::size_t written_ = 0;  // bytes of queue_ that the pipe has taken
  bool closing_ = false;
  bool broken_ = false;
};

}  // namespace palaver::host
