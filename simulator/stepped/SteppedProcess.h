// A helper in another process, whose time and machine are in the hands of this one.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/ChildProcess.h"
#include "simulator/scenario/ScenarioRecord.h"

namespace palaver {

// The helper did not do what keeps a conversation going: it hangs, or broke the control channel.
class ConversationError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Starts the program with a control channel. After each call that could make it do something, it waits until
// the helper has done all that there is to do and every thread of it is at rest; what it wrote meanwhile came
// at the time that the helper's clock shows. So the order of its lines, and their times, do not hang on how
// fast anything is. Everything throws ConversationError when the helper has not come to rest within the bound
// (real time). Used by one thread; SIGPIPE must be ignored.
class SteppedProcess {
 public:
  // `command`: the program's path and its arguments. `environment`: added to this process's own. `bound`: how
  // long it may take to come to rest before it counts as hanging. Throws std::system_error when it cannot be
  // started.
  SteppedProcess(const std::vector<std::string>& command, std::map<std::string, std::string> environment,
                 std::chrono::milliseconds bound);

  // Says which machine the helper is on, as readMachineState() wants it, and lets it start. `startsAt`: what
  // its clock reads at time 0, ms since the Unix epoch. Returns why it cannot be on such a machine, or none.
  std::optional<std::string> start(const JSON& machine, double startsAt);

  // Bytes on standard input, or its end.
  void send(const std::string& bytes);
  void closeInput();

  // A step of the machine.
  void perform(const MachineStep& step);

  // Moves the time to `time` (ms since the start) and lets everything happen that falls due before it; with
  // `included` also what falls due then.
  enum class End { excluded, included };
  void advance(double time, End end);

  // Whether the process has ended.
  bool hasEnded() const { return hasEnded_; }

  // Puts into the record what has reached the services. A process that ended by itself has told it then.
  void askWhatWasReceived();

  // Closes standard input, waits for the end as long as the bound allows, and returns what is written to
  // standard error meanwhile: a sanitizer's report may be on its way. Called last.
  std::string lastWords();

  // What came of it so far.
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
  host::Descriptor control_;
  host::ChildProcess child_;
  std::string controlText_;  // received, not yet read
  bool controlHasEnded_ = false;
  double now_ = 0;  // ms since the start
  ScenarioRecord record_;
  bool hasEnded_ = false;
};

}  // namespace palaver
