// Replaces the speech worker in tests. Reads from the file "behaviour" beside itself what to do, and when:
//
//   never              answers every task: a partial "go forward" with its first audio, a final at its end
//   <when> <what>      does <what> once <when> is reached
//
//   when: loading      instead of loading
//         unready      when a task starts, before it is loaded
//         task         when a task starts
//         audio        with the first audio of a task, after the partial
//         end          at the end of a task's audio
//         cancel       when a task is cancelled
//   what: hang         does nothing more, but keeps the socket
//         decode       reports that it decodes a minute of audio, and hangs
//         exit <n>     exits with that status
//         signal <n>   ends by that signal
//         stop         stops itself, as SIGSTOP does
//         close        closes the socket and keeps running
//         garbage      sends bytes that are no frame
//         oversized    sends the header of a frame that is too long
//         stranger     answers a task that was never started
//         helper-frame sends a frame that only the helper sends
//         fail         reports that the model cannot be loaded
//         answer       answers the task with a final
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "platform/linux/WorkerFrames.h"

namespace {

using namespace palaver;

constexpr int helper = 3;

struct Behaviour {
  std::string when = "never", what;
  int number = 0;
};

Behaviour readBehaviour() {
  Behaviour behaviour;
  std::ifstream file(std::filesystem::read_symlink("/proc/self/exe").parent_path() / "behaviour");
  file >> behaviour.when >> behaviour.what >> behaviour.number;
  return behaviour;
}

void send(std::string_view bytes) {
  while (!bytes.empty()) {
    const auto sent = ::send(helper, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) std::_Exit(0);
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
}

void answer(std::uint32_t task, bool isFinal) {
  send(encodeAnswer(task, RecognitionResult{"go forward", {{"go", 0, 0.25}, {"forward", 0.25, 0.5}}, isFinal},
                    std::nullopt));
}

[[noreturn]] void hang() {
  for (;;) ::pause();
}

void act(const Behaviour& behaviour, std::uint32_t task) {
  const std::string& what = behaviour.what;
  if (what == "hang") hang();
  if (what == "decode") {
    send(encodeDecoding(maxDecodedFrames));
    hang();
  }
  if (what == "exit") std::_Exit(behaviour.number);
  if (what == "signal") {
    ::signal(behaviour.number, SIG_DFL);
    ::raise(behaviour.number);
  }
  if (what == "stop") ::raise(SIGSTOP);
  if (what == "close") {
    ::close(helper);
    hang();
  }
  if (what == "garbage") send(std::string(4096, '\xa5'));
  if (what == "oversized") {
    auto frame = encodeConsumed(task, 1);
    frame[3] = '\x7f';
    send(frame);
  }
  if (what == "stranger") answer(task + 1000, true);
  if (what == "helper-frame") send(encodeFrame(FrameType::endAudio, task));
  if (what == "fail") send(encodeFailure(PlatformError("Fake", 1, "it is only a fake")));
  if (what == "answer") answer(task, true);
}

}  // namespace

int main() {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const auto behaviour = readBehaviour();
  const auto reached = [&](const char* when, std::uint32_t task) {
    if (behaviour.when == when) act(behaviour, task);
  };
  reached("loading", 0);
  if (behaviour.when != "unready") send(encodeFrame(FrameType::ready));
  FrameDecoder decoder;
  std::set<std::uint32_t> begun;
  for (;;) {
    const auto room = decoder.prepare();
    const auto count = ::recv(helper, room.data(), room.size(), 0);
    if (count <= 0) return 0;
    decoder.received(static_cast<std::size_t>(count));
    while (const auto frame = decoder.next()) {
      const auto task = frame->id;
      switch (frame->type) {
        case FrameType::startTask:
          reached("unready", task);
          reached("task", task);
          break;
        case FrameType::audio:
          if (!begun.insert(task).second) break;
          answer(task, false);
          reached("audio", task);
          break;
        case FrameType::endAudio:
          reached("end", task);
          answer(task, true);
          break;
        case FrameType::cancelTask:
          reached("cancel", task);
          break;
        default:
          break;
      }
    }
  }
}
