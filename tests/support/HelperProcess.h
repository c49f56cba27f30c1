// The real helper as a child of a test, played by the test as its host.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace palaver {

// How long a test waits for anything before it calls the helper stuck. Nothing waits this long when all is
// well.
inline constexpr std::chrono::seconds helperDeadline{60};

// Lives on the test's thread. Ends the child, if it still runs, when destroyed.
class HelperProcess {
 public:
  // What the child gets as one of its standard streams.
  struct Stream {
    enum class Kind { pipe, socket, closed, file };
    Kind kind = Kind::pipe;
    bool nonBlocking = false;  // the child's end, as hosts that share their sockets leave it
    std::string path = {};     // of a file
  };
  struct Options {
    std::vector<std::string> arguments = {};  // behind argument 0
    std::string argument0 = "PalaverSTTHelper";
    std::string program = {};                   // path of another program than the helper
    std::vector<std::string> environment = {};  // "name=value", and nothing else
    Stream input = {}, output = {}, error = {};
  };
  // How the child ended: by itself with a status, or by a signal.
  struct End {
    std::optional<int> status, signal;
    friend bool operator==(const End&, const End&) = default;
  };

  HelperProcess() : HelperProcess(Options()) {}
  explicit HelperProcess(const Options& options);
  // The helper with these arguments.
  explicit HelperProcess(std::vector<std::string> arguments)
      : HelperProcess(Options{.arguments = std::move(arguments)}) {}
  ~HelperProcess();
  HelperProcess(const HelperProcess&) = delete;
  HelperProcess& operator=(const HelperProcess&) = delete;

  // Writes everything. False when the helper does not take it within the deadline, or has gone.
  bool send(std::string_view bytes);
  bool sendLine(std::string_view line) { return send(std::string(line) + "\n"); }
  void closeInput();

  // The next line of standard output without its line feed; none at its end or after the deadline.
  std::optional<std::string> readLine();
  // The next line as JSON; a discarded value when there is no line or it is not JSON.
  nlohmann::json readEvent();
  // At most this many bytes, as they come; empty at the end.
  std::string readSome(std::size_t most);
  // All that follows, to the end.
  std::string readRest();
  std::vector<nlohmann::json> readEvents();
  void closeOutput();

  // Waits for the child's end and collects its standard error. None after the deadline.
  std::optional<End> wait();
  // All of standard error; after wait().
  const std::string& errorText() const { return errorText_; }

  void signal(int number) const { ::kill(pid_, number); }
  pid_t pid() const { return pid_; }
  // Resident memory in bytes; 0 where the system does not tell.
  std::size_t residentMemory() const;

 private:
  bool fill();

  pid_t pid_ = -1;
  int input_ = -1, output_ = -1, error_ = -1;
  int life_ = -1;  // ends when the child does
  std::string unread_;
  std::string errorText_;
  std::optional<End> end_;
};

// A child that has ended by itself with this status.
inline std::optional<HelperProcess::End> exited(int status) {
  return HelperProcess::End{.status = status, .signal = std::nullopt};
}
inline std::optional<HelperProcess::End> killedBy(int signal) {
  return HelperProcess::End{.status = std::nullopt, .signal = signal};
}

}  // namespace palaver
