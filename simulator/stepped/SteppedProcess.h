// Runs a helper in another process and controls its time and machine.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/posix/PipedProcess.h"
#include "simulator/scenario/ScenarioRecord.h"

namespace palaver {

// Reports that the helper hangs or broke the control channel.
class ConversationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Starts the program with a control channel. Each call that can cause activity waits until all threads of the
// helper are idle. Output read in the meantime gets the time of the helper's clock. Line order and times
// therefore do not depend on speed.
//
// Used by one thread. SIGPIPE must be ignored. Throws ConversationError when the helper is not idle within
// the bound (real time).
class SteppedProcess {
 public:
  // `command` is the program's path and arguments. `environment` is added to this process's environment.
  // `bound` is the time that the helper may take to become idle. Throws std::system_error when the program
  // cannot be started.
  SteppedProcess(const std::vector<std::string>& command, std::map<std::string, std::string> environment,
                 std::chrono::milliseconds bound);

  // Sends the machine's state, as readMachineState() expects it, and starts the helper. `startsAt` is the
  // clock's value at time 0, ms since the Unix epoch. Returns why the helper cannot run on this machine, or
  // none.
  std::optional<std::string> start(const JSON& machine, double startsAt);

  // Writes to stdin, or closes it.
  void send(const std::string& bytes);
  void closeInput();

  void perform(const MachineStep& step);

  // Moves the time to `time` (ms since the start) and runs everything due before it. With `included` also
  // runs what is due at that time.
  enum class End { excluded, included };
  void advance(double time, End end);

  bool hasEnded() const { return hasEnded_; }

  // Records what the services received. A process that has ended has already reported it.
  void askWhatWasReceived();

  // Closes stdin, waits for the end up to the bound and returns what is written to stderr meanwhile, such as
  // a sanitizer's report. Must be the last call.
  std::string lastWords();

  // Returns the record so far.
  const ScenarioRecord& record() const { return record_; }

 private:
  struct Channel;

  SteppedProcess(Channel channel, const std::vector<std::string>& command,
                 std::map<std::string, std::string> environment, std::chrono::milliseconds bound);

  JSON ask(const JSON& request);
  std::optional<JSON> nextMessage();
  void settle();
  void awaitRest();
  bool drain();
  bool drainControl();
  void stampLines();

  const std::chrono::milliseconds bound_;
  Descriptor control_;
  PipedProcess child_;
  std::string controlText_;  // received, not yet parsed
  bool controlHasEnded_ = false;
  double now_ = 0;  // ms since the start
  ScenarioRecord record_;
  bool hasEnded_ = false;
};

}  // namespace palaver
