#include "tests/support/HelperProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace palaver {

namespace {

using Clock = std::chrono::steady_clock;

void check(bool good, const char* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

struct Ends {
  Descriptor child, host;
};

Ends makeEnds(const HelperProcess::Stream& stream, bool childReads) {
  Ends ends;
  switch (stream.kind) {
    case HelperProcess::Stream::Kind::closed:
      return ends;
    case HelperProcess::Stream::Kind::file:
      ends.child = Descriptor(::open(stream.path.c_str(), (childReads ? O_RDONLY : O_WRONLY) | O_CLOEXEC));
      check(ends.child.isOpen(), "open");
      return ends;
    case HelperProcess::Stream::Kind::pipe: {
      auto [readEnd, writeEnd] = makePipe(stream.capacity);
      ends = childReads ? Ends{std::move(readEnd), std::move(writeEnd)}
                        : Ends{std::move(writeEnd), std::move(readEnd)};
      break;
    }
    case HelperProcess::Stream::Kind::socket: {
      std::array<int, 2> pair{};
      check(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair.data()) == 0, "socketpair");
      ends = {Descriptor(pair[0]), Descriptor(pair[1])};
      for (const int descriptor : pair) setCloseOnExec(descriptor);
      break;
    }
  }
  setNonBlocking(ends.host.get());
  if (stream.nonBlocking) setNonBlocking(ends.child.get());
  return ends;
}

// Waits until the descriptor is ready. False after the deadline.
bool await(int descriptor, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd waiting{.fd = descriptor, .events = events, .revents = 0};
    const int ready = ::poll(&waiting, 1, static_cast<int>(std::max<long long>(left, 0)));
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
}

// Returns the directory for conversations, or null.
const char* conversationDirectory() {
  return std::getenv("PALAVER_CONVERSATIONS");
}

constexpr std::size_t longestConversation = std::size_t{256} << 10;  // bytes in one direction

std::string hexadecimal(std::string_view bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char byte : bytes) {
    text += digits[static_cast<unsigned char>(byte) >> 4];
    text += digits[static_cast<unsigned char>(byte) & 15];
  }
  return text;
}

}  // namespace

HelperProcess::HelperProcess(const Options& options) {
  std::signal(SIGPIPE, SIG_IGN);  // so that send() fails when the helper has exited
  Ends input = makeEnds(options.input, true);
  Ends output = makeEnds(options.output, false);
  Ends error = makeEnds(options.error, false);
  Ends exitPipe = makeEnds({}, false);
  std::vector<std::string> command{options.program.empty() ? PALAVER_HELPER_PATH : options.program};
  command.insert(command.end(), options.arguments.begin(), options.arguments.end());
  process_.emplace(ChildOptions{.command = std::move(command),
                                .argument0 = options.argument0,
                                .environment = options.environment,
                                .descriptors = {{0, input.child.get()},
                                                {1, output.child.get()},
                                                {2, error.child.get()},
                                                {3, exitPipe.child.get()}},
                                .defaultSignals = {SIGPIPE, SIGTERM, SIGINT, SIGHUP}});
  input_ = std::move(input.host);
  output_ = std::move(output.host);
  error_ = std::move(error.host);
  exitPipe_ = std::move(exitPipe.host);
  conversation_.arguments = options.arguments;
  conversation_.isKept = conversationDirectory() && options.program.empty() && output_.isOpen() &&
                         options.input.kind != Stream::Kind::file;
  conversation_.inputClosed = !input_.isOpen();
}

HelperProcess::~HelperProcess() {
  if (conversation_.isKept) writeConversation();
}

void HelperProcess::writeConversation() {
  static int number = 0;
  const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
  if (!test) return;
  std::string name =
      std::string(test->test_suite_name()) + "." + test->name() + "-" + std::to_string(++number);
  std::ranges::replace(name, '/', '-');
  // Without the end of the output it is unknown what the helper has written.
  const bool isComplete = conversation_.outputEnded && end_ && end_->status;
  nlohmann::json record{{"test", name},
                        {"arguments", conversation_.arguments},
                        {"input", hexadecimal(conversation_.input)},
                        {"inputEnded", conversation_.inputClosed},
                        {"output", hexadecimal(conversation_.output)},
                        {"complete", isComplete},
                        {"exitStatus", isComplete ? nlohmann::json(*end_->status) : nlohmann::json()}};
  std::ofstream(std::string(conversationDirectory()) + "/" + name + ".json")
      << record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool HelperProcess::send(std::string_view bytes) {
  const auto deadline = Clock::now() + helperDeadline;
  while (!bytes.empty()) {
    const ssize_t count = ::write(input_.get(), bytes.data(), bytes.size());
    if (count >= 0) {
      if (conversation_.isKept) {
        conversation_.input += bytes.substr(0, static_cast<std::size_t>(count));
        conversation_.isKept = conversation_.input.size() <= longestConversation;
      }
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      if (!await(input_.get(), POLLOUT, deadline)) return false;
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

void HelperProcess::closeInput() {
  input_.close();
  conversation_.inputClosed = true;
}

void HelperProcess::closeOutput() {
  output_.close();
}

// Waits for output and buffers it. False at the end or after the deadline.
bool HelperProcess::fill() {
  const auto bytes = readSome(std::size_t{64} << 10);
  unread_ += bytes;
  return !bytes.empty();
}

std::string HelperProcess::readSome(std::size_t most) {
  if (!output_.isOpen()) return {};
  std::string bytes(most, '\0');
  const auto deadline = Clock::now() + helperDeadline;
  for (;;) {
    const ssize_t count = ::read(output_.get(), bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.resize(static_cast<std::size_t>(count));
      conversation_.outputEnded = count == 0;
      if (conversation_.isKept) {
        conversation_.output += bytes;
        conversation_.isKept = conversation_.output.size() <= longestConversation;
      }
      return bytes;
    }
    if (errno == EAGAIN) {
      if (!await(output_.get(), POLLIN, deadline)) return {};
    } else if (errno != EINTR) {
      return {};
    }
  }
}

std::optional<std::string> HelperProcess::readLine() {
  for (std::size_t searched = 0;;) {
    const auto end = unread_.find('\n', searched);
    if (end != std::string::npos) {
      std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      return line;
    }
    searched = unread_.size();
    if (!fill()) return std::nullopt;
  }
}

nlohmann::json HelperProcess::readEvent() {
  const auto line = readLine();
  return nlohmann::json::parse(line.value_or(""), nullptr, false);
}

std::string HelperProcess::readRest() {
  while (fill()) {
  }
  return std::exchange(unread_, {});
}

std::vector<nlohmann::json> HelperProcess::readEvents() {
  const auto text = readRest();
  std::vector<nlohmann::json> events;
  for (std::size_t at = 0; at < text.size();) {
    const auto end = std::min(text.find('\n', at), text.size());
    events.push_back(nlohmann::json::parse(text.substr(at, end - at), nullptr, false));
    at = end + 1;
  }
  return events;
}

std::optional<HelperProcess::End> HelperProcess::wait() {
  if (end_) return end_;
  const auto deadline = Clock::now() + helperDeadline;
  char byte = 0;
  while (::read(exitPipe_.get(), &byte, 1) < 0)
    if (!await(exitPipe_.get(), POLLIN, deadline)) return std::nullopt;
  const auto status = process_->wait();
  end_ = status.signal == 0 ? exited(status.code) : killedBy(status.signal);
  char bytes[4096];
  for (ssize_t count = 0; error_.isOpen() && (count = ::read(error_.get(), bytes, sizeof bytes)) > 0;)
    errorText_.append(bytes, static_cast<std::size_t>(count));
  return end_;
}

std::size_t HelperProcess::residentMemory() const {
  std::ifstream status("/proc/" + std::to_string(pid()) + "/status");
  for (std::string word; status >> word;)
    if (word == "VmRSS:") {
      std::size_t kibibytes = 0;
      status >> kibibytes;
      return kibibytes * 1024;
    }
  return 0;
}

}  // namespace palaver
