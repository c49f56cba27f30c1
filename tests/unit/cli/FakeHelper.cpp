// Simulates a helper that misbehaves, for the tests of the host. The first argument selects the behaviour:
//
//   well            serves a session: a partial for the first loud chunk of a source, a final after 5 quiet
//                   chunks
//   dies            exits with status 3 at the first audio
//   killed          ends by SIGKILL at the first audio
//   silent          reports no status
//   never-ready     reports its status, then reads without answering
//   unavailable     reports that the session is not available, and the reason
//   floods          like well; writes 1 MB of other events for each of the first 10 audio chunks
//   slow            like well; reads at most 4 KiB at a time with pauses of 2 ms
//   reads-nothing   serves until the session is ready, then stops reading
//   reports-error   like well; writes one error event
//   writes-garbage  like well; writes one line that is not an event
//   leaves-open     writes a partial and never its final
//   fails           like well; exits with status 5
//   stays           like well; does not exit at the end of its input
//   chatters        like well; writes to standard error
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

[[noreturn]] void blockForever() {
  for (;;) ::pause();
}

struct Source {
  int utterance = 0;
  int quiet = 0;  // chunks since the last loud one
  bool open = false;
};

class FakeHelper {
 public:
  explicit FakeHelper(std::string behaviour) : behaviour_(std::move(behaviour)) {}

  void run() {
    if (behaviour_ == "silent") blockForever();
    write({{"type", "helper.status"}, {"status", "ready"}, {"available", true}, {"message", "ready"}});
    for (std::string line; readLine(line);) handle(nlohmann::json::parse(line));
  }

  int finish() const {
    if (behaviour_ == "stays") blockForever();
    return behaviour_ == "fails" ? 5 : 0;
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
      if (behaviour_ == "slow" && ready_) std::this_thread::sleep_for(std::chrono::milliseconds(2));
      const auto count = ::read(STDIN_FILENO, buffer_, behaviour_ == "slow" ? 4096 : sizeof buffer_);
      if (count <= 0) return false;
      at_ = 0;
      read_ = static_cast<std::size_t>(count);
    }
    byte = buffer_[at_++];
    return true;
  }

  void handle(const nlohmann::json& command) {
    const std::string type = command.at("type");
    if (behaviour_ == "never-ready") return;
    if (type == "session.start") {
      const bool available = behaviour_ != "unavailable";
      write({{"type", "session.ready"},
             {"sessionId", command.at("sessionId")},
             {"available", available},
             {"locale", command.at("locale")}});
      ready_ = true;
      if (!available)
        write({{"type", "helper.status"}, {"available", false}, {"message", "there is no model"}});
      if (behaviour_ == "reads-nothing") blockForever();
      if (behaviour_ == "chatters") std::cerr << "diagnostic line" << std::endl;
    } else if (type == "audio") {
      handleAudio(command);
    } else if (type == "session.stop") {
      write({{"type", "session.stopped"}, {"sessionId", command.at("sessionId")}});
    }
  }

  void handleAudio(const nlohmann::json& command) {
    ++chunks_;
    if (behaviour_ == "dies") std::_Exit(3);
    if (behaviour_ == "killed") ::raise(SIGKILL);
    if (behaviour_ == "floods" && chunks_ <= 10) flood();
    if (behaviour_ == "reports-error" && chunks_ == 1)
      write({{"type", "helper.error"}, {"message", "something failed"}});
    if (behaviour_ == "writes-garbage" && chunks_ == 1) std::cout << "hello" << std::endl;
    const std::string name = command.at("source");
    const std::string pcm = command.at("pcmBase64");
    auto& source = sources_[name];
    const bool loud = pcm.find_first_not_of("A=") != std::string::npos;
    source.quiet = loud ? 0 : source.quiet + 1;
    if (loud && !source.open) {
      source.open = true;
      ++source.utterance;
      transcript("transcript.partial", command, source);
    } else if (source.open && source.quiet == 5 && behaviour_ != "leaves-open") {
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

  // The text holds the sequence number of the chunk, so that a test can detect lost chunks.
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

  std::string behaviour_;
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
