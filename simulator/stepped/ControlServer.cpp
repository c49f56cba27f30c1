#include "simulator/stepped/ControlServer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <utility>

#include "simulator/scenario/ScenarioRecord.h"

namespace palaver {

namespace {

constexpr int internalError = 70;  // EX_SOFTWARE of sysexits.h

}  // namespace

ControlServer& ControlServer::connect() {
  const char* const number = std::getenv(controlVariable);
  char* end = nullptr;
  const long descriptor = number ? std::strtol(number, &end, 10) : -1;
  if (!number || *number == '\0' || *end != '\0' || ::fcntl(static_cast<int>(descriptor), F_GETFD) < 0) {
    std::fprintf(stderr, "%s must hold the number of an open descriptor.\n", controlVariable);
    std::exit(2);
  }
  ::fcntl(static_cast<int>(descriptor), F_SETFD, FD_CLOEXEC);
  return *new ControlServer(static_cast<int>(descriptor));  // its thread uses it until the process ends
}

void ControlServer::fail(const std::string& why) {
  std::fprintf(stderr, "The control channel failed: %s\n", why.c_str());
  std::_Exit(internalError);
}

std::optional<std::string> ControlServer::readLine() {
  for (;;) {
    if (const auto end = unread_.find('\n'); end != std::string::npos) {
      auto line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      return line;
    }
    char bytes[4096];
    const auto count = ::read(descriptor_, bytes, sizeof bytes);
    if (count == 0) return std::nullopt;
    if (count > 0) {
      unread_.append(bytes, static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      fail("it cannot be read");
    }
  }
}

JSON ControlServer::readRequest() {
  const auto line = readLine();
  if (!line) std::_Exit(internalError);  // the controlling process has ended
  auto request = JSON::parse(*line, nullptr, false);
  if (!request.is_object()) fail("a request is no JSON object: " + *line);
  return request;
}

void ControlServer::answer(const JSON& value) {
  const auto line = value.dump() + "\n";
  const std::lock_guard guard(writing_);
  for (std::size_t written = 0; written < line.size();) {
    const auto count = ::send(descriptor_, line.data() + written, line.size() - written, MSG_NOSIGNAL);
    if (count >= 0) {
      written += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      fail("it cannot be written");
    }
  }
}

ControlServer::Setup ControlServer::receiveSetup() {
  const auto request = readRequest();
  try {
    return {readMachineState(request.at("machine"), "machine"), request.at("startsAt").get<double>()};
  } catch (const std::exception& error) {
    fail(error.what());
  }
}

void ControlServer::refuse(const std::string& why) {
  answer({{"refused", why}});
  std::_Exit(0);
}

void ControlServer::serve(ControlledMachine& machine, PlatformState state, SteppedTimeline& timeline) {
  machine_ = &machine;
  timeline_ = &timeline;
  stage_.emplace(machine, std::move(state));
  std::thread([this] {
    for (;;) {
      const auto request = readRequest();
      try {
        answer(perform(request));
      } catch (const std::exception& error) {
        fail(error.what());
      }
    }
  }).detach();  // runs until the process ends
  answer(JSON::object());
}

JSON ControlServer::perform(const JSON& request) {
  if (const auto step = request.find("step"); step != request.end()) {
    const auto complaint = stage_->perform(readMachineStep(
        step->at("key").get<std::string>(), step->at("value"), step->at("where").get<std::string>()));
    return complaint ? JSON{{"complaint", *complaint}} : JSON::object();
  }
  if (const auto time = request.find("advanceTo"); time != request.end()) {
    const bool isIncluded = request.at("end") == "included";
    const bool ran = timeline_->runNext(
        time->get<double>(), isIncluded ? SteppedTimeline::End::included : SteppedTimeline::End::excluded);
    return {{"ran", ran}, {"now", timeline_->now()}};
  }
  if (request.contains("report")) return report();
  throw std::runtime_error("unknown request " + request.dump());
}

JSON ControlServer::report() {
  return receivedBy(machine_->speechRecognition(), machine_->speechAnalysis());
}

void ControlServer::tellEnd(int status) {
  answer({{"ends", status}, {"now", timeline_->now()}, {"report", report()}});
}

}  // namespace palaver
