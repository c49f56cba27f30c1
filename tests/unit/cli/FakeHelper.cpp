// A stand-in for the helper that misbehaves on demand, for the tests of the host. Its first argument says
// how:
//
//   well            serves a session: a partial on the first loud audio of a source, a final once 5 quiet
//   chunks
//                   have followed
//   dies            ends with status 3 after the first audio
//   killed          ends by SIGKILL after the first audio
//   silent          reports no status
//   never-ready     reports its status, then reads and says nothing
//   unavailable     reports that the session is not available, and why
//   floods          serves well, and writes 1 MB of other events for every audio chunk of the first ten
//   slow            serves well, but reads a few kilobytes at a time and pauses in between
//   reads-nothing   serves until the session is ready, then stops reading
//   reports-error   serves well, with an error event in between
//   writes-garbage  serves well, with a line in between that is no event
//   leaves-open     writes a partial and never its final
//   fails           serves well, and ends with status 5
//   stays           serves well, and does not end when its input does
//   chatters        serves well, and writes to its standard error
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

namespace {

void write(const nlohmann::json& event) {
  std::cout << event.dump() << std::endl;
}

[[noreturn]] void stay() {
  for (;;) ::pause();
}

struct Source {
  int utterance = 0;
  int quiet = 0;  // chunks since the last loud one
  bool open = false;
};

class FakeHelper {
 public:
  explicit FakeHelper(std::string manner) : manner_(std::move(manner)) {}

  void run() {
    if (manner_ == "silent") stay();
    write({{"type", "helper.status"}, {"status", "ready"}, {"available", true}, {"message", "as ever"}});
    for (std::string line; readLine(line);) handle(nlohmann::json::parse(line));
  }

  int finish() const {
    if (manner_ == "stays") stay();
    return manner_ == "fails" ? 5 : 0;
  }

 private:
  bool readLine(std::string& line) {
    line.clear();
    for (char byte = 0; readByte(byte);) {
      if (byte == '\n') return true;
      line += byte;
    }
    return false;
  }

  bool readByte(char& byte) {
    if (at_ == read_) {
      if (manner_ == "slow" && ready_) std::this_thread::sleep_for(std::chrono::milliseconds(2));
      const auto count = ::read(STDIN_FILENO, buffer_, manner_ == "slow" ? 4096 : sizeof buffer_);
      if (count <= 0) return false;
      at_ = 0;
      read_ = static_cast<std::size_t>(count);
    }
    byte = buffer_[at_++];
    return true;
  }

  void handle(const nlohmann::json& command) {
    const std::string type = command.at("type");
    if (manner_ == "never-ready") return;
    if (type == "session.start") {
      const bool available = manner_ != "unavailable";
      write({{"type", "session.ready"},
             {"sessionId", command.at("sessionId")},
             {"available", available},
             {"locale", command.at("locale")}});
      ready_ = true;
      if (!available)
        write({{"type", "helper.status"}, {"available", false}, {"message", "there is no model"}});
      if (manner_ == "reads-nothing") stay();
      if (manner_ == "chatters") std::cerr << "so far so good" << std::endl;
    } else if (type == "audio") {
      handleAudio(command);
    } else if (type == "session.stop") {
      write({{"type", "session.stopped"}, {"sessionId", command.at("sessionId")}});
    }
  }

  void handleAudio(const nlohmann::json& command) {
    ++chunks_;
    if (manner_ == "dies") std::_Exit(3);
    if (manner_ == "killed") ::raise(SIGKILL);
    if (manner_ == "floods" && chunks_ <= 10) flood();
    if (manner_ == "reports-error" && chunks_ == 1)
      write({{"type", "helper.error"}, {"message", "something failed"}});
    if (manner_ == "writes-garbage" && chunks_ == 1) std::cout << "hello" << std::endl;
    const std::string name = command.at("source");
    const std::string pcm = command.at("pcmBase64");
    auto& source = sources_[name];
    const bool loud = pcm.find_first_not_of("A=") != std::string::npos;
    source.quiet = loud ? 0 : source.quiet + 1;
    if (loud && !source.open) {
      source.open = true;
      ++source.utterance;
      transcript("transcript.partial", command, source);
    } else if (source.open && source.quiet == 5 && manner_ != "leaves-open") {
      source.open = false;
      transcript("transcript.final", command, source);
    }
  }

  static void flood() {
    const nlohmann::json event{{"type", "pong"}, {"text", std::string(8000, 'x')}};
    const auto line = event.dump() + "\n";
    for (int i = 0; i < 125; ++i) std::cout << line;
    std::cout.flush();
  }

  // The text tells how many chunks of all sources have come, so that a test can see that none was lost.
  void transcript(const char* type, const nlohmann::json& command, const Source& source) const {
    const double capturedAt = command.at("capturedAt");
    write({{"type", type},
           {"sessionId", command.at("sessionId")},
           {"source", command.at("source")},
           {"utteranceId", std::to_string(source.utterance)},
           {"text", "chunk " + std::to_string(command.at("sequence").get<int>())},
           {"startedAt", capturedAt},
           {"speechEndedAt", capturedAt + 100},
           {"latencyMs", 1.0},
           {"endpointing", {{"reason", "silence"}}}});
  }

  std::string manner_;
  std::map<std::string, Source> sources_;
  int chunks_ = 0;
  bool ready_ = false;
  char buffer_[65536];
  std::size_t at_ = 0;
  std::size_t read_ = 0;
};

}  // namespace

int main(int argumentCount, char** arguments) {
  if (argumentCount != 2) return 2;
  FakeHelper helper(arguments[1]);
  helper.run();
  return helper.finish();
}
