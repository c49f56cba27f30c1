// Tests the helper together with its speech worker: real processes, a real model, and every way in which a
// worker may end.
#include <gmock/gmock.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "tests/support/FakeWorkerFolder.h"
#include "tests/support/HelperProcess.h"

namespace palaver {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* recording = "/usr/share/pocketsphinx/test/data/goforward.raw";

std::string contents(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string base64(std::string_view bytes) {
  constexpr std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    unsigned group = 0;
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
    for (std::size_t k = 0; k < 3; ++k)
      group = group << 8U | (k < count ? static_cast<unsigned char>(bytes[i + k]) : 0U);
    for (std::size_t k = 0; k < 4; ++k) text += k <= count ? digits[group >> (18 - 6 * k) & 63U] : '=';
  }
  return text;
}

std::string start(const std::string& session) {
  return R"({"type":"session.start","sessionId":")" + session + R"(","locale":"en-US"})";
}
std::string stop(const std::string& session) {
  return R"({"type":"session.stop","sessionId":")" + session + "\"}";
}
std::string audio(const std::string& session, const std::string& source, std::string_view samples) {
  return R"({"type":"audio","sessionId":")" + session + R"(","source":")" + source +
         R"(","sequence":1,"capturedAt":1000,"pcmBase64":")" + base64(samples) + "\"}";
}
// 100 ms that count as voice.
std::string voice() {
  std::string samples;
  for (int i = 0; i < 1600; ++i)
    samples += i % 2 == 0 ? std::string("\x00\x20", 2) : std::string("\x00\xe0", 2);
  return samples;
}

// Returns the processes whose parent is `parent`.
std::set<pid_t> childrenOf(pid_t parent) {
  std::set<pid_t> children;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (!std::ranges::all_of(name, [](char c) { return c >= '0' && c <= '9'; })) continue;
    const auto status = contents(entry.path() / "stat");  // pid (name) state parent ...
    const auto end = status.rfind(')');
    if (end == std::string::npos) continue;
    if (std::stoi(status.substr(end + 4)) == parent) children.insert(std::stoi(name));
  }
  return children;
}

// Returns the state of a process as ps prints it, or 'X' when there is none.
char stateOf(pid_t process) {
  const auto status = contents("/proc/" + std::to_string(process) + "/stat");
  const auto end = status.rfind(')');
  return end == std::string::npos ? 'X' : status[end + 2];
}

bool runs(pid_t process) {
  const char state = stateOf(process);
  return state != 'X' && state != 'Z';
}

// Waits until the condition holds. False after the deadline.
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds deadline = helperDeadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

class SpeechWorkerTest : public testing::Test {
 protected:
  // Waits for the next event of a type, and collects the others.
  nlohmann::json await(HelperProcess& helper, const std::string& type) {
    for (;;) {
      auto event = helper.readEvent();
      if (event.is_discarded() || event["type"] == type) return event;
      others_.push_back(event);
    }
  }

  static pid_t workerOf(const HelperProcess& helper) {
    const auto children = childrenOf(helper.pid());
    return children.size() == 1 ? *children.begin() : -1;
  }

  std::vector<nlohmann::json> others_;
};

class RealSpeechWorker : public SpeechWorkerTest {
 protected:
  HelperProcess helper_;
};

TEST_F(RealSpeechWorker, StatusStartsNoWorker) {
  EXPECT_EQ(await(helper_, "helper.status")["type"], "helper.status");
  ASSERT_TRUE(helper_.sendLine(R"({"type":"session.start","sessionId":"a","locale":"ja-JP"})"));
  EXPECT_EQ(await(helper_, "session.ready")["available"], false);
  ASSERT_TRUE(helper_.sendLine(R"({"type":"ping","sentAt":1})"));
  EXPECT_EQ(await(helper_, "pong")["sentAt"], 1);
  EXPECT_TRUE(childrenOf(helper_.pid()).empty());
}

TEST_F(RealSpeechWorker, RecordingIsTranscribedByOneWorker) {
  ASSERT_TRUE(helper_.sendLine(start("a")));
  await(helper_, "session.ready");
  const auto worker = workerOf(helper_);
  EXPECT_GT(worker, 0) << "the session has started no worker";
  const auto samples = contents(recording);
  for (const char* source : {"remote", "self"}) ASSERT_TRUE(helper_.sendLine(audio("a", source, samples)));
  std::set<std::string> sources;
  while (sources.size() < 2) {
    const auto partial = await(helper_, "transcript.partial");
    ASSERT_FALSE(partial.is_discarded());
    if (partial["text"] == "go forward ten meters") sources.insert(partial["source"]);
  }
  ASSERT_TRUE(helper_.sendLine(stop("a")));
  for (int i = 0; i < 2; ++i)
    EXPECT_THAT(await(helper_, "transcript.final")["text"], StartsWith("go forward ten"));
  EXPECT_EQ(workerOf(helper_), worker);
  helper_.closeInput();
  EXPECT_EQ(helper_.wait(), exited(0));
  EXPECT_TRUE(eventually([&] { return !runs(worker); }));
}

TEST_F(RealSpeechWorker, WorkerInheritsOnlyItsSocket) {
  ASSERT_TRUE(helper_.sendLine(start("a")));
  await(helper_, "session.ready");
  const auto worker = workerOf(helper_);
  ASSERT_GT(worker, 0);
  // Until then it is still the helper's copy, which starts the program.
  ASSERT_TRUE(eventually([&] {
    std::error_code ended;
    const auto program = std::filesystem::read_symlink("/proc/" + std::to_string(worker) + "/exe", ended);
    return program.filename() == "PalaverSpeechWorker";
  }));
  const std::filesystem::path folder = "/proc/" + std::to_string(worker) + "/fd";
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(std::filesystem::read_symlink(folder / std::to_string(i)), "/dev/null") << i;
  EXPECT_THAT(std::filesystem::read_symlink(folder / "3").string(), StartsWith("socket:"));
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::error_code closed;
    const auto target = std::filesystem::read_symlink(entry.path(), closed).string();
    if (closed) continue;
    EXPECT_THAT(target, testing::Not(StartsWith("pipe:"))) << entry.path();
  }
  // Nothing is ignored or blocked, whatever the helper does. The C library keeps signals 32 and 33 to itself.
  constexpr unsigned long long ofLibrary = 3ULL << 31;
  // The library blocks all signals while it starts a thread, so the worker is asked until it has done that.
  for (const auto* field : {"SigIgn:\t", "SigBlk:\t"})
    EXPECT_TRUE(eventually([&] {
      const auto status = contents("/proc/" + std::to_string(worker) + "/status");
      const auto at = status.find(field);
      return at != std::string::npos && (std::stoull(status.substr(at + 8), nullptr, 16) & ~ofLibrary) == 0;
    })) << field;
}

TEST_F(RealSpeechWorker, KilledHelperLeavesNoWorker) {
  for (const bool isStopped : {false, true}) {
    HelperProcess helper;
    ASSERT_TRUE(helper.sendLine(start("a")));
    await(helper, "session.ready");
    const auto worker = workerOf(helper);
    ASSERT_GT(worker, 0);
    if (isStopped) {
      ::kill(worker, SIGSTOP);
      ASSERT_TRUE(eventually([&] { return stateOf(worker) == 'T'; }));
    }
    helper.signal(SIGKILL);
    EXPECT_EQ(helper.wait(), killedBy(SIGKILL));
    EXPECT_TRUE(eventually([&] { return !runs(worker); }, std::chrono::seconds(20))) << isStopped;
  }
}

TEST_F(RealSpeechWorker, KilledWorkerLosesNoPartialAndIsReplaced) {
  ASSERT_TRUE(helper_.sendLine(start("a")));
  await(helper_, "session.ready");
  const auto worker = workerOf(helper_);
  ASSERT_GT(worker, 0);
  const auto samples = contents(recording);
  ASSERT_TRUE(helper_.sendLine(audio("a", "remote", samples)));
  std::string text;
  while (text != "go forward ten meters") {
    const auto partial = await(helper_, "transcript.partial");
    ASSERT_FALSE(partial.is_discarded());
    text = partial["text"];
  }
  ::kill(worker, SIGKILL);
  const auto error = await(helper_, "helper.error");
  EXPECT_EQ(
      error["message"],
      "Speech recognition failed: The speech engine ended unexpectedly (signal 9 (Killed)). The next words "
      "start it again");
  EXPECT_EQ(error["sessionId"], "a");
  EXPECT_EQ(error["source"], "remote");
  const auto final = await(helper_, "transcript.final");
  EXPECT_EQ(final["text"], text);
  EXPECT_EQ(final["endpointing"]["reason"], "fallback");

  ASSERT_TRUE(helper_.sendLine(audio("a", "remote", samples)));
  text.clear();
  while (text != "go forward ten meters") {
    const auto partial = await(helper_, "transcript.partial");
    ASSERT_FALSE(partial.is_discarded());
    text = partial["text"];
  }
  EXPECT_NE(workerOf(helper_), worker);
  for (const auto& event : others_) EXPECT_NE(event["type"], "helper.error") << event;
}

TEST_F(RealSpeechWorker, TenChannelsAreTranscribed) {
  const auto samples = contents(recording);
  for (int i = 0; i < 5; ++i) {
    const auto session = std::to_string(i);
    ASSERT_TRUE(helper_.sendLine(start(session)));
    for (const char* source : {"remote", "self"})
      ASSERT_TRUE(helper_.sendLine(audio(session, source, samples)));
  }
  std::set<std::string> channels;
  while (channels.size() < 10) {
    const auto partial = await(helper_, "transcript.partial");
    ASSERT_FALSE(partial.is_discarded());
    if (partial["text"] == "go forward ten meters")
      channels.insert(partial["sessionId"].get<std::string>() + partial["source"].get<std::string>());
  }
  EXPECT_GT(workerOf(helper_), 0) << "one worker serves all";
}

// A copy of the helper beside a fake worker.
class FakeSpeechWorker : public SpeechWorkerTest {
 protected:
  void SetUp() override {
    std::filesystem::copy_file(PALAVER_HELPER, folder_.path() / "PalaverSTTHelper");
    helper_.emplace(HelperProcess::Options{.program = folder_.path() / "PalaverSTTHelper"});
    ASSERT_TRUE(helper_->sendLine(start("a")));
    await(*helper_, "session.ready");
  }
  void speak() { ASSERT_TRUE(helper_->sendLine(audio("a", "self", voice()))); }

  FakeWorkerFolder folder_{PALAVER_FAKE_WORKER};
  std::optional<HelperProcess> helper_;
};

// Starts each worker with a behaviour, by letting the one before end.
TEST_F(FakeSpeechWorker, EachEndIsOneErrorAndKeepsWords) {
  const std::pair<const char*, const char*> ends[] = {
      {"exit 0", "ended unexpectedly (exit status 0)"},  {"exit 255", "ended unexpectedly (exit status 255)"},
      {"signal 11", "ended unexpectedly (signal 11"},    {"signal 6", "ended unexpectedly (signal 6"},
      {"garbage", "sent an answer that cannot be read"}, {"close", "it closed its socket"}};
  for (const auto& [what, message] : ends) {
    folder_.behave(std::string("audio ") + what);
    helper_.emplace(HelperProcess::Options{.program = folder_.path() / "PalaverSTTHelper"});
    ASSERT_TRUE(helper_->sendLine(start("a")));
    speak();
    EXPECT_EQ(await(*helper_, "transcript.partial")["text"], "go forward") << what;
    EXPECT_THAT(await(*helper_, "helper.error")["message"].get<std::string>(), HasSubstr(message)) << what;
    const auto final = await(*helper_, "transcript.final");
    EXPECT_EQ(final["text"], "go forward") << what;
    EXPECT_EQ(final["endpointing"]["reason"], "fallback") << what;
    folder_.behave("never");
    speak();
    EXPECT_EQ(await(*helper_, "transcript.partial")["text"], "go forward") << what;
    helper_->closeInput();
    EXPECT_EQ(helper_->wait(), exited(0));
    for (const auto& event : others_) EXPECT_NE(event["type"], "helper.error") << what << event;
    others_.clear();
  }
}

TEST_F(FakeSpeechWorker, WorkerThatKeepsEndingIsReported) {
  folder_.behave("audio exit 1");
  helper_.emplace(HelperProcess::Options{.program = folder_.path() / "PalaverSTTHelper"});
  ASSERT_TRUE(helper_->sendLine(start("a")));
  for (int i = 0; i < 3; ++i) {
    speak();
    EXPECT_THAT(await(*helper_, "helper.error")["message"].get<std::string>(), HasSubstr("exit status 1"))
        << i;
  }
  speak();
  EXPECT_THAT(
      await(*helper_, "helper.error")["message"].get<std::string>(),
      StartsWith("Speech recognition failed: The speech engine ended 3 times within 60 s. It is started "
                 "again in "));
  EXPECT_TRUE(childrenOf(helper_->pid()).empty());
}

TEST_F(FakeSpeechWorker, MissingWorkerIsReportedWhereAudioArrives) {
  std::filesystem::remove(folder_.program());
  helper_.emplace(HelperProcess::Options{.program = folder_.path() / "PalaverSTTHelper"});
  ASSERT_TRUE(helper_->sendLine(start("a")));
  EXPECT_EQ(await(*helper_, "session.ready")["available"], true);
  speak();
  EXPECT_EQ(await(*helper_, "helper.error")["message"],
            "Speech recognition failed: The speech engine is not installed: there is no program " +
                folder_.program().string());
}

TEST_F(FakeSpeechWorker, WorkerOfInstallationIsFound) {
  const auto root = folder_.path() / "installation";
  std::filesystem::create_directories(root / "bin");
  std::filesystem::create_directories(root / "libexec" / "palaver-stt");
  std::filesystem::copy_file(PALAVER_HELPER, root / "bin" / "PalaverSTTHelper");
  std::filesystem::copy_file(folder_.program(), root / "libexec" / "palaver-stt" / "PalaverSpeechWorker");
  helper_.emplace(HelperProcess::Options{.program = root / "bin" / "PalaverSTTHelper"});
  ASSERT_TRUE(helper_->sendLine(start("a")));
  speak();
  EXPECT_EQ(await(*helper_, "transcript.partial")["text"], "go forward");
}

TEST_F(FakeSpeechWorker, HelperOfHostThatIgnoresChildSignalReportsStatus) {
  folder_.behave("audio exit 7");
  helper_.emplace(HelperProcess::Options{
      .arguments = {"-c", "trap '' CHLD; exec \"$0\"", folder_.path() / "PalaverSTTHelper"},
      .argument0 = "sh",
      .program = "/bin/sh"});
  ASSERT_TRUE(helper_->sendLine(start("a")));
  speak();
  EXPECT_THAT(await(*helper_, "helper.error")["message"].get<std::string>(), HasSubstr("exit status 7"));
}

}  // namespace
}  // namespace palaver
