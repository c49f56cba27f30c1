// Serves the control channel in the helper: another process moves its time, performs machine steps and
// queries what the services received.
//
// The channel is a stream socket whose descriptor is in the environment. Both sides write one JSON object per
// line. Each request gets one response, and the next request follows the response:
//
//   {"machine": {...}, "startsAt": ms}    first request: the machine's state (system, platform) and clock;
//                                         {} or {"refused": "why"}
//   {"step": {"key", "value", "where"}}   performs a machine step; {} or {"complaint": "why"}
//   {"advanceTo": ms, "end": "excluded"}  runs the next job due before that time, or moves the time there;
//                                         {"ran": true, "now": ms}. "included": also runs jobs due at that
//                                         time
//   {"report": true}                      returns what the services received, as receivedBy() formats it
//
// Right before the process ends, the helper sends {"ends": status, "now": ms, "report": {...}} without a
// request.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "simulator/scenario/MachineSteps.h"
#include "simulator/stepped/SteppedTimeline.h"

namespace palaver {

// Names the environment variable that holds the descriptor's number.
inline constexpr const char* controlVariable = "PALAVER_STT_CONTROL";

class ControlServer {
 public:
  struct Setup {
    MachineState machine;
    double startsAt = 0;  // ms since the Unix epoch
  };

  // Opens the channel that the environment names. It serves until the process ends. Without a channel, writes
  // a line to stderr and ends the process immediately with status 2. Main thread, once.
  static ControlServer& connect();

  // Waits for the first request. On failure, this and the functions below write a line to stderr and end the
  // process with status 70.
  Setup receiveSetup();

  // Answers the first request: the helper cannot run on this machine. Ends the process with status 0.
  [[noreturn]] void refuse(const std::string& why);

  // Answers the first request and serves the rest on its own thread. The machine is in the setup's state from
  // then on.
  void serve(ControlledMachine& machine, PlatformState state, SteppedTimeline& timeline);

  // Reports that the process ends now. Any thread.
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
