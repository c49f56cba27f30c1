#include "cli/examine.h"

#include <poll.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <functional>
#include <span>
#include <system_error>

#include "cli/AudioChunk.h"
#include "cli/HostCommands.h"
#include "cli/LineSplitter.h"
#include "cli/PCM.h"
#include "platform/audio/SoundFileSource.h"
#include "platform/posix/PipedProcess.h"

namespace palaver::cli {

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr const char* sessionId = "doctor";

bool isOfType(const json& event, const char* type) {
  const auto member = event.find("type");
  return member != event.end() && *member == type;
}

// Talks to a helper in turns: says something, then listens until an answer or a time.
class Conversation {
 public:
  explicit Conversation(const std::string& helper) : helper_({helper}) {}

  void say(const std::string& line) {
    helper_.write(line);
    helper_.flush();
  }

  // Reads events until one satisfies the condition. Returns whether one did.
  bool listen(std::chrono::milliseconds limit, const std::function<bool(const json&)>& isAnswer) {
    const auto deadline = Clock::now() + limit;
    for (std::size_t heard = 0;;) {
      for (; heard < fresh_.size(); ++heard) {
        events.push_back(fresh_[heard]);
        if (!isAnswer(fresh_[heard])) continue;
        fresh_.erase(fresh_.begin(), fresh_.begin() + static_cast<std::ptrdiff_t>(heard) + 1);
        return true;
      }
      fresh_.clear();
      heard = 0;
      if (hasEnded_ || !read(deadline)) return false;
    }
  }

  // Closes the helper's input and waits for its end, by force after the limit.
  void end(std::chrono::milliseconds limit) {
    helper_.closeInput();
    listen(limit, [](const json&) { return false; });
    if (!hasEnded_) helper_.signal(SIGKILL);
  }

  // How the helper has ended, or an empty text.
  std::string endText() {
    if (!hasEnded_) return "";
    const auto deadline = Clock::now() + std::chrono::seconds(1);
    for (;;) {
      if (const auto status = helper_.exitStatus()) return status->description();
      if (Clock::now() > deadline) return "its output was closed";
      ::poll(nullptr, 0, 10);
    }
  }

  std::vector<json> events;

 private:
  // Waits for bytes. Returns false after the deadline.
  bool read(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    // Closed descriptors are -1, which poll() skips.
    std::array<pollfd, 3> waits{{{helper_.output(), POLLIN, 0},
                                 {helper_.diagnostics(), POLLIN, 0},
                                 {helper_.queuedBytes() > 0 ? helper_.input() : -1, POLLOUT, 0}}};
    ::poll(waits.data(), waits.size(), static_cast<int>(std::min<long long>(left, 1000)));
    helper_.flush();
    std::string diagnostics;
    while (helper_.readDiagnostics(diagnostics) == ReadOutcome::data) diagnostics.clear();
    const auto add = [this](std::string_view line) {
      auto event = json::parse(line, nullptr, false);
      if (event.is_object()) fresh_.push_back(std::move(event));
    };
    for (std::string bytes;;) {
      const auto outcome = helper_.readOutput(bytes);
      if (outcome == ReadOutcome::end) hasEnded_ = true;
      if (outcome != ReadOutcome::data) break;
      lines_.append(bytes, add);
    }
    return true;
  }

  PipedProcess helper_;
  LineSplitter lines_;
  std::vector<json> fresh_;
  bool hasEnded_ = false;
};

std::string pingLine() {
  return json{{"type", "ping"}, {"sentAt", 0}}.dump() + "\n";
}

void converse(Examination& seen, const ExaminationLimits& limits) {
  Conversation conversation(seen.helper);
  const auto isFinalStatus = [](const json& event) {
    return isOfType(event, "helper.error") ||
           (isOfType(event, "helper.status") && event.value("status", "") != "checking-model");
  };
  // A machine without transcriber reports that first, and the reason next.
  const bool hasStatus = conversation.listen(limits.status, isFinalStatus);
  if (hasStatus) {
    const std::vector<std::int16_t> quiet(chunkFrames);
    conversation.say(sessionStart(sessionId, seen.locale, {}));
    conversation.say(audio(sessionId, AudioSource::remote, 0, 0, quiet));
    conversation.say(pingLine());
    bool hasPong = false;
    bool hasVerdict = false;
    conversation.listen(limits.session, [&](const json& event) {
      hasPong = hasPong || isOfType(event, "pong");
      // Readiness comes before the pong, or from an analyzer any time later. So does an error.
      hasVerdict = hasVerdict || ((isOfType(event, "session.ready") || isOfType(event, "helper.error")) &&
                                  event.contains("sessionId"));
      return hasPong && hasVerdict;
    });
    seen.isComplete = hasPong;
    if (hasPong) conversation.say(sessionStop(sessionId));
  }
  if (seen.isComplete || hasStatus) {
    conversation.end(limits.end);
  } else {
    seen.end = conversation.endText();
  }
  if (!seen.isComplete) seen.end = conversation.endText();
  seen.events = std::move(conversation.events);
}

CheckedSound check(const std::string& path) {
  CheckedSound checked;
  checked.path = path;
  SoundFileSource source(path);
  std::vector<std::int16_t> frames(chunkFrames);
  bool hasSound = false;
  while (const auto count = source.read(frames)) {
    const double loudness = loudnessOf(std::span(frames).first(count));
    hasSound = hasSound || loudness > 0;
    checked.loudest = std::max(checked.loudest, loudness);
  }
  checked.loudness = !hasSound                          ? Loudness::silent
                     : checked.loudest < voiceThreshold ? Loudness::quiet
                                                        : Loudness::voiced;
  return checked;
}

}  // namespace

Examination examine(const std::string& helper, const std::string& locale,
                    const std::vector<std::string>& soundFiles, const ExaminationLimits& limits) {
  Examination seen;
  seen.helper = helper;
  seen.locale = locale;
  utsname system{};
  if (::uname(&system) == 0 && std::string(system.sysname) == "Linux")
    seen.system = Examination::System::linux;
  for (const auto& path : soundFiles) seen.sounds.push_back(check(path));
  std::error_code ignored;
  seen.isFile = std::filesystem::is_regular_file(helper, ignored);
  seen.isExecutable = seen.isFile && ::access(helper.c_str(), X_OK) == 0;
  if (!seen.isExecutable) return seen;
  std::signal(SIGPIPE, SIG_IGN);
  try {
    seen.signature = inspectSignature(helper);
    converse(seen, limits);
  } catch (const std::system_error& error) {
    seen.startError = error.code().message();
  }
  return seen;
}

}  // namespace palaver::cli
