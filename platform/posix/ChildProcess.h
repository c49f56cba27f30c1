// Starts and controls a child process.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace palaver {

// Describes how a child ended.
struct ExitStatus {
  int code = 0;    // argument of exit(); 0 after a signal
  int signal = 0;  // the terminating signal, or 0

  bool isSuccess() const { return code == 0 && signal == 0; }
  std::string description() const;  // "exit status 3", "signal 9 (Killed)"
  friend bool operator==(const ExitStatus&, const ExitStatus&) = default;
};

// Describes how to start a child. It inherits no blocked signal.
struct ChildOptions {
  std::vector<std::string> command;  // the program's path, or its name on the PATH, then its arguments
  std::optional<std::string> argument0 = {};                 // replaces the program's path as argument 0
  std::optional<std::vector<std::string>> environment = {};  // "name=value"; none: this process's environment
  std::map<int, int> descriptors =
      {};  // by number in the child: the descriptor of this process, or -1 for closed
  std::vector<int> defaultSignals{SIGPIPE};  // reset to their default action
  bool leadsProcessGroup = false;            // Ctrl-C in the terminal then does not reach the child
  std::optional<int> closesFrom =
      {};  // closes all descriptors from this number on; Linux only, others ignore it
};

// Used by one thread at a time. Different children may be used on different threads.
class ChildProcess {
 public:
  // Throws std::system_error when the program cannot be started.
  explicit ChildProcess(const ChildOptions& options);

  // Kills a running child (SIGKILL) and waits for it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t id() const { return process_; }

  // Returns the status of a child that has ended, or none while it runs. Never blocks.
  std::optional<ExitStatus> exitStatus();

  // Blocks until the child ends.
  ExitStatus wait();

  // Sends a signal to a running child.
  void signal(int number);

 private:
  pid_t process_ = -1;
  std::optional<ExitStatus> status_;
};

// Returns this process's environment with variables added or replaced, as "name=value".
std::vector<std::string> environmentWith(const std::map<std::string, std::string>& variables);

}  // namespace palaver
