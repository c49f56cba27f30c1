// Runs the real helper as a child of the test, which acts as its host.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/posix/ChildProcess.h"
#include "platform/posix/Descriptor.h"

namespace palaver {

// Time after which a wait fails. A passing test never waits this long.
inline constexpr std::chrono::seconds helperDeadline{60};

// Test thread only. The destructor kills a child that is still running.
//
// When the variable PALAVER_CONVERSATIONS names a directory, the destructor writes there what was said in
// both directions, for the check against the protocol (tests/protocol/processes_test.py).
class HelperProcess {
 public:
  // Describes one standard stream of the child.
  struct Stream {
    enum class Kind { pipe, socket, closed, file };
    Kind kind = Kind::pipe;
    bool nonBlocking = false;  // the child's end; hosts that share their sockets leave it so
    std::string path = {};     // only for a file
    std::size_t capacity = 0;  // of a pipe, bytes; 0: the system's default
  };
  struct Options {
    std::vector<std::string> arguments = {};  // after argument 0
    std::string argument0 = "PalaverSTTHelper";
    std::string program = {};                   // path of a program to run instead of the helper
    std::vector<std::string> environment = {};  // "name=value"; the whole environment
    Stream input = {}, output = {}, error = {};
  };
  // How the child ended: with an exit status, or by a signal.
  struct End {
    std::optional<int> status, signal;
    friend bool operator==(const End&, const End&) = default;
  };

  HelperProcess() : HelperProcess(Options()) {}
  explicit HelperProcess(const Options& options);
  explicit HelperProcess(std::vector<std::string> arguments)
      : HelperProcess(Options{.arguments = std::move(arguments)}) {}
  HelperProcess(const HelperProcess&) = delete;
  HelperProcess& operator=(const HelperProcess&) = delete;
  ~HelperProcess();

  // Writes all bytes. False when the helper does not read them within the deadline, or has exited.
  bool send(std::string_view bytes);
  bool sendLine(std::string_view line) { return send(std::string(line) + "\n"); }
  void closeInput();

  // Returns the next line of standard output without its line feed. None at its end or after the deadline.
  std::optional<std::string> readLine();
  // Returns the next line as JSON. A discarded value when there is no line or it is not JSON.
  nlohmann::json readEvent();
  // Returns up to this many bytes as they arrive. Empty at the end or after the deadline.
  std::string readSome(std::size_t most);
  // Returns the rest of standard output.
  std::string readRest();
  std::vector<nlohmann::json> readEvents();
  void closeOutput();

  // Waits until the child exits and collects its standard error. None after the deadline.
  std::optional<End> wait();
  // All of standard error. Valid after wait().
  const std::string& errorText() const { return errorText_; }

  void signal(int number) { process_->signal(number); }
  pid_t pid() const { return process_->id(); }
  // Resident memory in bytes. 0 where the system does not report it.
  std::size_t residentMemory() const;

 private:
  bool fill();
  void writeConversation();

  // What was said. Not kept beyond a size that no check needs.
  struct Conversation {
    std::vector<std::string> arguments;
    std::string input, output;
    bool isKept = false;
    bool inputClosed = false;
    bool outputEnded = false;
  };

  std::optional<ChildProcess> process_;
  Descriptor input_, output_, error_;
  Descriptor exitPipe_;  // reads as ended when the child exits
  std::string unread_;
  std::string errorText_;
  std::optional<End> end_;
  Conversation conversation_;
};

inline std::optional<HelperProcess::End> exited(int status) {
  return HelperProcess::End{.status = status, .signal = std::nullopt};
}
inline std::optional<HelperProcess::End> killedBy(int signal) {
  return HelperProcess::End{.status = std::nullopt, .signal = signal};
}

}  // namespace palaver
