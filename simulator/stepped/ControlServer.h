// The helper's side of the control channel: somebody outside of the process moves its time, performs what the
// machine does, and asks what reached the services.
//
// The channel is a stream socket whose descriptor the environment names. Both sides write JSON objects, one
// per line; each request is answered by one object, and the next comes behind that:
//
//   {"machine": {...}, "startsAt": ms}     first: the state of the machine (system, platform) and its clock;
//                                          {} or {"refused": "why"}
//   {"step": {"key", "value", "where"}}    performs a step of the machine; {}, or {"complaint": "why"}
//   {"advanceTo": ms, "end": "excluded"}   runs what falls due next before that time, or moves the time
//   there;
//                                          {"ran": true, "now": ms}. "included": also what falls due then
//   {"report": true}                       what reached the services, as receivedBy() gives it
//
// Unasked, right before the process ends: {"ends": status, "now": ms, "report": {...}}.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "simulator/scenario/MachineSteps.h"
#include "simulator/stepped/SteppedTimeline.h"

namespace palaver {

// The variable of the environment that holds the descriptor's number.
inline constexpr const char* controlVariable = "PALAVER_STT_CONTROL";

class ControlServer {
 public:
  struct Setup {
    MachineState machine;
    double startsAt = 0;  // ms since the Unix epoch
  };

  // Takes the channel from the environment. It serves until the process ends, which it does at once, with a
  // line on standard error and status 2, when there is no channel. Main thread, once.
  static ControlServer& connect();

  // Waits for the first request. Every failure below ends the process with status 70, after a line on
  // standard error: there is nobody else to tell.
  Setup receiveSetup();

  // Answers the first request: this helper cannot be on such a machine. The process ends with status 0.
  [[noreturn]] void refuse(const std::string& why);

  // Answers the first request and serves the rest on a thread of its own. The machine is in the state of the
  // setup from then on.
  void serve(ControlledMachine& machine, PlatformState state, SteppedTimeline& timeline);

  // Tells that the process ends now. Any thread.
  void tellEnd(int status);

 private:
  explicit ControlServer(int descriptor) : descriptor_(descriptor) {}

  std::optional<std::string> readLine();
  JSON readRequest();
  void answer(const JSON& value);
  JSON perform(const JSON& request);
  JSON report();
  [[noreturn]] void fail(const std::string& why);

  const int descriptor_;
  std::string unread_;
  std::mutex writing_;
  ControlledMachine* machine_ = nullptr;
  SteppedTimeline* timeline_ = nullptr;
  std::optional<Stage> stage_;
};

}  // namespace palaver
