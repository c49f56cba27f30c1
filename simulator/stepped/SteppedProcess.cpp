#include "simulator/stepped/SteppedProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "simulator/stepped/ControlServer.h"
#include "simulator/stepped/ThreadActivity.h"

namespace palaver {

namespace {

using RealTime = std::chrono::steady_clock;

constexpr int looksAtOnce = 50;  // snapshots before polling slows down
// upper bound between snapshots of a process that may change without notice
constexpr int millisecondsPerLook = 100;
// Bounds the jobs between two steps. Above it the helper counts as looping.
constexpr int mostJobs = 20'000;

PipedProcess makeChild(const std::vector<std::string>& command,
                       std::map<std::string, std::string> environment, const Descriptor& control) {
  environment[controlVariable] = "3";
  return PipedProcess(command, {std::move(environment), control.get()});
}

}  // namespace

struct SteppedProcess::Channel {
  Descriptor ours;
  Descriptor childs;

  static Channel make() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) < 0)
      throw std::system_error(errno, std::generic_category(), "socketpair");
    Channel channel{Descriptor(ends[0]), Descriptor(ends[1])};
    if (::fcntl(ends[0], F_SETFL, O_NONBLOCK) < 0)
      throw std::system_error(errno, std::generic_category(), "fcntl");
    return channel;
  }
};

SteppedProcess::SteppedProcess(const std::vector<std::string>& command,
                               std::map<std::string, std::string> environment,
                               std::chrono::milliseconds bound)
    : SteppedProcess(Channel::make(), command, std::move(environment), bound) {}

SteppedProcess::SteppedProcess(Channel channel, const std::vector<std::string>& command,
                               std::map<std::string, std::string> environment,
                               std::chrono::milliseconds bound)
    : bound_(bound),
      control_(std::move(channel.ours)),
      child_(makeChild(command, std::move(environment), channel.childs)) {}

std::optional<std::string> SteppedProcess::start(const JSON& machine, double startsAt) {
  const auto answer = ask({{"machine", machine}, {"startsAt", startsAt}});
  if (answer.contains("refused")) return answer.at("refused").get<std::string>();
  settle();
  return std::nullopt;
}

void SteppedProcess::send(const std::string& bytes) {
  child_.write(bytes);
  settle();
}

void SteppedProcess::closeInput() {
  child_.closeInput();
  settle();
}

void SteppedProcess::perform(const MachineStep& step) {
  const auto answer = ask({{"step", {{"key", step.key}, {"value", step.value}, {"where", step.where}}}});
  if (answer.contains("complaint")) record_.complaints.push_back(answer.at("complaint").get<std::string>());
  settle();
}

void SteppedProcess::advance(double time, End end) {
  for (int jobs = 0; !hasEnded(); ++jobs) {
    if (jobs > mostJobs) throw ConversationError("there is no end of what falls due");
    const auto answer = ask({{"advanceTo", time}, {"end", end == End::included ? "included" : "excluded"}});
    if (answer.is_null()) return;
    now_ = answer.at("now").get<double>();
    settle();
    if (!answer.at("ran").get<bool>()) return;
  }
}

void SteppedProcess::askWhatWasReceived() {
  if (auto received = ask({{"report", true}}); !received.is_null()) record_.received = std::move(received);
}

std::string SteppedProcess::lastWords() {
  const auto deadline = RealTime::now() + bound_;
  const auto linesBefore = record_.errorOutput.lines.size();
  child_.closeInput();
  while (!hasEnded_ && RealTime::now() < deadline) {
    hasEnded_ = child_.exitStatus().has_value();
    if (!drain()) ::poll(nullptr, 0, 1);
  }
  drain();
  stampLines();
  std::string words;
  for (auto i = linesBefore; i < record_.errorOutput.lines.size(); ++i)
    words += record_.errorOutput.lines[i].text + "\n";
  return words + record_.errorOutput.rest;
}

// Sends a request and waits for its response. Returns null when the process has ended instead.
JSON SteppedProcess::ask(const JSON& request) {
  if (hasEnded()) return nullptr;
  const auto line = request.dump() + "\n";
  // Requests are small compared with the socket's buffer, and each is read before the next is sent.
  const auto count = ::send(control_.get(), line.data(), line.size(), MSG_NOSIGNAL);
  if (count < 0 && errno != EPIPE && errno != ECONNRESET)
    throw std::system_error(errno, std::generic_category(), "send");
  const auto deadline = RealTime::now() + bound_;
  for (;;) {
    drain();
    if (auto answer = nextMessage()) return std::move(*answer);
    if (controlHasEnded_) {
      settle();
      if (!hasEnded()) throw ConversationError("the helper has closed the control channel");
      return nullptr;
    }
    if (RealTime::now() > deadline) throw ConversationError("the helper does not answer: " + request.dump());
    std::array<pollfd, 3> waiting{
        {{control_.get(), POLLIN, 0}, {child_.output(), POLLIN, 0}, {child_.diagnostics(), POLLIN, 0}}};
    ::poll(waiting.data(), waiting.size(), millisecondsPerLook);
  }
}

// Returns the next received message, or none.
std::optional<JSON> SteppedProcess::nextMessage() {
  for (;;) {
    const auto end = controlText_.find('\n');
    if (end == std::string::npos) return std::nullopt;
    auto message = JSON::parse(controlText_.substr(0, end), nullptr, false);
    controlText_.erase(0, end + 1);
    if (!message.is_object()) throw ConversationError("the control channel holds what is no JSON object");
    if (!message.contains("ends")) return message;
    now_ = message.at("now").get<double>();
    record_.received = message.at("report");
  }
}

// Waits until the helper is idle or has ended. Output written by then gets the time of its clock.
void SteppedProcess::settle() {
  awaitRest();
  stampLines();
}

void SteppedProcess::awaitRest() {
  const auto deadline = RealTime::now() + bound_;
  std::optional<ThreadActivity> before;
  for (int looks = 0; !hasEnded(); ++looks) {
    child_.flush();
    if (const auto end = child_.exitStatus()) {
      drain();  // all output is available now
      if (nextMessage()) throw ConversationError("the helper answered what it was not asked");
      hasEnded_ = true;
      if (end->signal == 0) {
        record_.exitStatus = end->code;
      } else {
        record_.complaints.push_back("the helper was ended by " + end->description());
      }
      return;
    }
    const ThreadActivity now(child_.id());
    const bool isAtRest = now.isAsleep() && before == now;
    // Output written before all threads slept is available now. A helper blocked on a full pipe continues.
    if (!drain() && isAtRest) return;
    before = now;
    if (RealTime::now() > deadline) throw ConversationError("the helper does not come to rest");
    // Yields at first because the helper may need the processor, then sleeps.
    if (looks < looksAtOnce) {
      ::sched_yield();
    } else {
      ::poll(nullptr, 0, 1);
    }
  }
}

// Reads all available output. Returns whether there was any.
bool SteppedProcess::drain() {
  bool any = false;
  for (std::string bytes; child_.readOutput(bytes) == ReadOutcome::data; any = true)
    record_.output.rest += bytes;
  for (std::string bytes; child_.readDiagnostics(bytes) == ReadOutcome::data; any = true)
    record_.errorOutput.rest += bytes;
  return drainControl() || any;
}

bool SteppedProcess::drainControl() {
  bool any = false;
  for (std::array<char, 4096> bytes{};;) {
    const auto count = ::recv(control_.get(), bytes.data(), bytes.size(), 0);
    if (count > 0) {
      controlText_.append(bytes.data(), static_cast<std::size_t>(count));
      any = true;
    } else if (count == 0 || errno == ECONNRESET) {
      controlHasEnded_ = true;
      return any;
    } else if (errno != EINTR) {
      return any;
    }
  }
}

// Sets the time of the lines read so far.
void SteppedProcess::stampLines() {
  for (auto* const stream : {&record_.output, &record_.errorOutput})
    for (std::size_t end; (end = stream->rest.find('\n')) != std::string::npos;
         stream->rest.erase(0, end + 1))
      stream->lines.push_back({now_, stream->rest.substr(0, end)});
}

}  // namespace palaver
