// Tests re-execution: what the child inherits, and how the wrapper represents it. reexec/program.cpp stands
// for the helper; its head documents its output and commands.
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/support/HelperProcess.h"

namespace palaver {
namespace {

using nlohmann::json;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Strings = std::vector<std::string>;

constexpr std::array forwardedSignals{SIGTERM, SIGINT, SIGHUP};

class Reexec : public HelperProcess {
 public:
  explicit Reexec(const Strings& settings = {}, const Strings& arguments = {},
                  const std::string& argument0 = "PalaverSTTHelper")
      : HelperProcess(Options{.arguments = arguments,
                              .argument0 = argument0,
                              .program = PALAVER_REEXEC_PROGRAM,
                              .environment = environment(settings)}) {}

  // Reads until one of the processes waits for commands, or all have exited.
  void readUntilReady() {
    while (readOne() && !isReady_) {
    }
  }
  // Returns and records the next event. None when all processes have exited.
  std::optional<json> readOne() {
    const auto line = readLine();
    if (!line) return std::nullopt;
    const auto event = json::parse(*line, nullptr, false);
    EXPECT_TRUE(event.is_object()) << *line;
    if (event.contains("call")) calls_.push_back(event["call"]);
    if (event.value("when", "") == "before") before_.push_back(event);
    if (event.value("when", "") == "after") after_.push_back(event);
    if (event.value("when", "") == "ready") isReady_ = true;
    return event;
  }
  // Returns the next event with this key. A discarded value at the end.
  json readKey(const std::string& key) {
    while (const auto event = readOne())
      if (event->contains(key)) return *event;
    return json(json::value_t::discarded);
  }
  json ask(const std::string& command, const std::string& key) {
    EXPECT_TRUE(sendLine(command));
    return readKey(key);
  }
  std::optional<End> sendAndWait(const std::string& command) {
    EXPECT_TRUE(sendLine(command));
    while (readOne()) {
    }
    return wait();
  }

  bool isReady() const { return isReady_; }
  // What each process observed before and after the call, in order of arrival.
  const std::vector<json>& before() const { return before_; }
  const std::vector<json>& after() const { return after_; }
  const Strings& calls() const { return calls_; }

 private:
  // A system that can disclaim, unless the settings override it. The first entry of a name counts.
  static Strings environment(Strings settings) {
    settings.insert(settings.end(),
                    {"REEXEC_DISCLAIM=0", std::string("REEXEC_EXECUTABLE=") + PALAVER_REEXEC_PROGRAM});
    return settings;
  }

  std::vector<json> before_, after_;
  Strings calls_;
  bool isReady_ = false;
};

// Expects that a child of the first process does the work.
void expectReexecuted(const Reexec& helper) {
  ASSERT_TRUE(helper.isReady());
  ASSERT_EQ(helper.before().size(), 2U);
  ASSERT_EQ(helper.after().size(), 1U);
  EXPECT_EQ(helper.before()[0]["pid"], helper.pid());
  EXPECT_NE(helper.before()[1]["pid"], helper.pid());
  EXPECT_EQ(helper.after()[0]["pid"], helper.before()[1]["pid"]);
}

// Expects that the first process does the work, unchanged.
void expectContinued(const Reexec& helper) {
  ASSERT_TRUE(helper.isReady());
  ASSERT_EQ(helper.before().size(), 1U);
  ASSERT_EQ(helper.after().size(), 1U);
  EXPECT_EQ(helper.before()[0]["pid"], helper.pid());
  auto after = helper.after()[0];
  after["when"] = "before";
  EXPECT_EQ(after, helper.before()[0]);
}

TEST(ReexecTest, ChildInheritsEverythingPlusMarkerLast) {
  Strings environment;
  for (int i = 0; i < 500; ++i)
    environment.push_back("VARIABLE_" + std::to_string(i * 7919 % 500) + "=" + std::string(100, 'v') +
                          std::to_string(i));
  environment.insert(environment.end(), {"EMPTY=", "SPACES= a  b ", "日本語=会議の音声", "LINES=a\nb",
                                         "EQUAL==a=b", "TWICE=1", "TWICE=2", "no variable"});
  const Strings arguments{"--locale",
                          "two words",
                          " ",
                          "",
                          "日本語の引数 です",
                          "quote\"d '$HOME' \\ *",
                          "a\nb",
                          std::string(100000, 'x')};
  Reexec helper(environment, arguments, "a name of its own");
  helper.readUntilReady();
  expectReexecuted(helper);

  auto expected = helper.before()[0];
  Strings expectedArguments{"a name of its own"};
  expectedArguments.insert(expectedArguments.end(), arguments.begin(), arguments.end());
  EXPECT_EQ(expected["arguments"], expectedArguments);
  EXPECT_GE(expected["environment"].size(), environment.size());
  expected["environment"].push_back("PALAVER_DISCLAIMED=1");
  expected["pid"] = helper.before()[1]["pid"];
  EXPECT_EQ(helper.before()[1], expected);
  expected["when"] = "after";
  EXPECT_EQ(helper.after()[0], expected);
  EXPECT_EQ(helper.sendAndWait("exit 0"), exited(0));
  EXPECT_EQ(helper.errorText(), "");
}

TEST(ReexecTest, ChildIsSpawnedDisclaimed) {
  Reexec helper;
  const auto disclaim = [&] {
    while (const auto event = helper.readOne())
      if (event->value("call", "") == "disclaim") return *event;
    return json();
  }();
  EXPECT_EQ(disclaim["disclaim"], 1);
  EXPECT_EQ(disclaim["attributes"], true);
  const auto spawn = helper.readKey("call");
  EXPECT_EQ(spawn["call"], "spawn");
  EXPECT_EQ(spawn["path"], PALAVER_REEXEC_PROGRAM);
  EXPECT_EQ(spawn["actions"], false);
  EXPECT_EQ(helper.sendAndWait("exit 0"), exited(0));
  EXPECT_THAT(helper.calls(), ElementsAre("init", "disclaim", "spawn", "destroy"));
}

TEST(ReexecTest, ChildInheritsDescriptors) {
  std::array<int, 2> ends{};
  ASSERT_EQ(::pipe(ends.data()), 0);
  Reexec helper;
  ::close(ends[1]);
  helper.readUntilReady();
  expectReexecuted(helper);
  const std::string text = "heard";
  const auto answer = helper.ask("write " + std::to_string(ends[1]) + " " + text, "written");
  EXPECT_EQ(answer["written"], text.size());
  std::array<char, 16> bytes{};
  ASSERT_EQ(::read(ends[0], bytes.data(), bytes.size()), static_cast<ssize_t>(text.size()));
  EXPECT_EQ(bytes.data(), text);
  EXPECT_EQ(helper.sendAndWait("exit 0"), exited(0));
  EXPECT_EQ(::read(ends[0], bytes.data(), bytes.size()), 0);  // both processes have exited
  ::close(ends[0]);
}

TEST(ReexecTest, ChildKeepsIgnoredAndBlockedSignals) {
  for (const int signal : forwardedSignals) {
    const auto number = std::to_string(signal);
    Reexec ignoring({"REEXEC_IGNORE=" + number});
    ignoring.readUntilReady();
    expectReexecuted(ignoring);
    EXPECT_THAT(ignoring.before()[1]["ignored"], Contains(signal));
    EXPECT_EQ(ignoring.before()[1]["ignored"], ignoring.before()[0]["ignored"]);
    EXPECT_EQ(ignoring.sendAndWait("exit 0"), exited(0));

    Reexec blocking({"REEXEC_BLOCK=" + number});
    blocking.readUntilReady();
    expectReexecuted(blocking);
    EXPECT_EQ(blocking.before()[1]["blocked"], json({signal}));
    EXPECT_EQ(blocking.sendAndWait("exit 0"), exited(0));
  }
}

TEST(ReexecTest, WrapperExitsWithStatusOfChild) {
  for (const int status : {0, 1, 3, 127, 255}) {
    Reexec helper;
    EXPECT_EQ(helper.sendAndWait("exit " + std::to_string(status)), exited(status));
    expectReexecuted(helper);
    EXPECT_EQ(helper.errorText(), "");
  }
}

TEST(ReexecTest, WrapperExits1WhenSignalKillsChild) {
  for (const int signal : {SIGKILL, SIGTERM, SIGUSR1}) {
    Reexec helper;
    EXPECT_EQ(helper.sendAndWait("die " + std::to_string(signal)), exited(1));
    expectReexecuted(helper);
    EXPECT_EQ(helper.errorText(), "");
  }
}

TEST(ReexecTest, EndOfInputReachesChild) {
  Reexec helper;
  helper.closeInput();
  while (helper.readOne()) {
  }
  EXPECT_EQ(helper.wait(), exited(99));
}

TEST(ReexecTest, SignalReachesChildAndWrapperSurvives) {
  for (const int signal : forwardedSignals) {
    Reexec helper;
    helper.readUntilReady();
    expectReexecuted(helper);
    helper.signal(signal);
    EXPECT_EQ(helper.readKey("signal")["signal"], signal);
    // However long the child takes to exit.
    EXPECT_EQ(helper.ask("parent", "parent")["parent"], helper.pid());
    EXPECT_EQ(helper.sendAndWait("exit 3"), exited(3));
  }
}

TEST(ReexecTest, EveryForwardedSignalReachesChild) {
  Reexec helper;
  helper.readUntilReady();
  for (int i = 0; i < 300; ++i) {
    const int signal = forwardedSignals[static_cast<std::size_t>(i) % 3];
    helper.signal(signal);
    ASSERT_EQ(helper.readKey("signal")["signal"], signal) << i;
  }
  EXPECT_EQ(helper.ask("parent", "parent")["parent"], helper.pid());
  EXPECT_EQ(helper.sendAndWait("exit 0"), exited(0));
}

TEST(ReexecTest, SignalBurstEndsNeitherProcess) {
  Reexec helper;
  helper.readUntilReady();
  for (int i = 0; i < 1000; ++i)
    for (const int signal : forwardedSignals) helper.signal(signal);
  // The system keeps one pending signal of each kind.
  std::set<int> seen;
  while (seen.size() < forwardedSignals.size()) {
    const auto event = helper.readKey("signal");
    ASSERT_TRUE(event.is_object());
    seen.insert(event["signal"].get<int>());
  }
  EXPECT_EQ(helper.ask("parent", "parent")["parent"], helper.pid());
  EXPECT_EQ(helper.sendAndWait("exit 3"), exited(3));
}

// Reads until the child reports the signal and ends it then, or until the signal has ended all processes.
std::optional<HelperProcess::End> endAfterSignal(Reexec& helper) {
  const auto handled = helper.readKey("signal");
  if (handled.is_object()) return helper.sendAndWait("exit 5");
  return helper.wait();
}

TEST(ReexecTest, SignalRightAfterSpawnReachesChild) {
  for (const int signal : forwardedSignals) {
    Reexec helper({"REEXEC_RAISE=" + std::to_string(signal)});
    const auto end = endAfterSignal(helper);
    // 1: the child had no handler yet. Without a child the signal would have ended the first process.
    EXPECT_TRUE(end == exited(1) || end == exited(5));
    EXPECT_THAT(helper.calls(), Contains("spawn"));
  }
}

TEST(ReexecTest, SignalDuringStartLeavesNoProcessBehind) {
  for (int i = 0; i < 90; ++i) {
    const int signal = forwardedSignals[static_cast<std::size_t>(i) % 3];
    Reexec helper;
    for (int lines = i / 3 % 9; lines > 0 && !helper.isReady(); --lines) helper.readOne();
    helper.signal(signal);
    const auto end = endAfterSignal(helper);
    ASSERT_TRUE(end);  // all have exited without a command
    // A signal that ends the first process arrived before the child existed.
    if (end == killedBy(signal)) {
      EXPECT_EQ(helper.before().size(), helper.before().empty() ? 0U : 1U);
    } else {
      EXPECT_TRUE(end == exited(1) || end == exited(5));
    }
  }
}

TEST(ReexecTest, MarkedProcessStartsNoChild) {
  for (const Strings& environment :
       {Strings{"PALAVER_DISCLAIMED=1"}, {"PALAVER_DISCLAIMED=0", "PALAVER_DISCLAIMED=1"}}) {
    Reexec helper(environment);
    helper.readUntilReady();
    expectContinued(helper);
    EXPECT_EQ(helper.sendAndWait("exit 3"), exited(3));
    EXPECT_THAT(helper.calls(), IsEmpty());
  }
}

TEST(ReexecTest, OtherMarkerValueIsIgnoredAndKept) {
  for (const std::string entry :
       {"PALAVER_DISCLAIMED=0", "PALAVER_DISCLAIMED=", "PALAVER_DISCLAIMED=11", "PALAVER_DISCLAIMED= 1",
        "PALAVER_DISCLAIMED=true", "PALAVER_DISCLAIMED", "PALAVER_DISCLAIMED2=1", "palaver_disclaimed=1"}) {
    Reexec helper({entry});
    helper.readUntilReady();
    expectReexecuted(helper);
    const auto& environment = helper.after()[0]["environment"];
    EXPECT_EQ(environment.front(), entry);
    EXPECT_EQ(environment.back(), "PALAVER_DISCLAIMED=1");
    EXPECT_EQ(environment.size(), helper.before()[0]["environment"].size() + 1);
    EXPECT_EQ(helper.sendAndWait("exit 0"), exited(0));
    EXPECT_THAT(helper.calls(), ElementsAre("init", "disclaim", "spawn", "destroy"));  // of one process only
  }
}

TEST(ReexecTest, ProcessContinuesSilentlyWhenReexecFails) {
  struct Case {
    const char* description;
    Strings settings, calls;
  };
  for (const auto& [description, settings, calls] : {
           Case{"no function to disclaim with", {"REEXEC_DISCLAIM=missing"}, {}},
           Case{"no attributes", {"REEXEC_INIT=12"}, {"init"}},
           Case{"disclaiming fails", {"REEXEC_DISCLAIM=-1"}, {"init", "disclaim", "destroy"}},
           Case{"disclaiming fails with another error",
                {"REEXEC_DISCLAIM=22"},
                {"init", "disclaim", "destroy"}},
           Case{"starting fails", {"REEXEC_SPAWN=35"}, {"init", "disclaim", "spawn", "destroy"}},
           Case{"no such executable",
                {"REEXEC_EXECUTABLE=/nowhere/PalaverSTTHelper"},
                {"init", "disclaim", "spawn", "destroy"}},
           Case{"no path and no program of that name",
                {"REEXEC_EXECUTABLE=none"},
                {"init", "disclaim", "spawn", "destroy"}},
       }) {
    SCOPED_TRACE(description);
    Reexec helper(settings);
    helper.readUntilReady();
    expectContinued(helper);
    for (const int signal : forwardedSignals) {
      helper.signal(signal);
      EXPECT_EQ(helper.readKey("signal")["signal"], signal);
    }
    EXPECT_EQ(helper.sendAndWait("exit 3"), exited(3));
    EXPECT_EQ(helper.calls(), calls);
    EXPECT_EQ(helper.errorText(), "");
  }
}

TEST(ReexecTest, Argument0IsSpawnedWithoutExecutablePath) {
  Reexec helper({"REEXEC_EXECUTABLE=none"}, {"argument"}, PALAVER_REEXEC_PROGRAM);
  helper.readUntilReady();
  expectReexecuted(helper);
  EXPECT_EQ(helper.after()[0]["executable"], helper.before()[0]["executable"]);
  EXPECT_EQ(helper.sendAndWait("exit 3"), exited(3));
}

TEST(ReexecTest, InterruptedWaitResumes) {
  Reexec helper({"REEXEC_WAIT=" + std::to_string(EINTR)});
  EXPECT_EQ(helper.sendAndWait("exit 6"), exited(6));
}

TEST(ReexecTest, FailedWaitExits0) {
  Reexec helper({"REEXEC_WAIT=" + std::to_string(ECHILD)});
  EXPECT_EQ(helper.sendAndWait("exit 6"), exited(0));
  // With SIGCHLD ignored the system discards the exit status of children.
  Reexec ignoring({"REEXEC_IGNORE=" + std::to_string(SIGCHLD)});
  EXPECT_EQ(ignoring.sendAndWait("exit 6"), exited(0));
}

#ifdef __linux__
// Empty when the file no longer exists.
std::string contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream all;
  all << file.rdbuf();
  return all.str();
}

bool hasChild(pid_t parent) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const auto process = entry.path().filename().string();
    if (process.find_first_not_of("0123456789") != std::string::npos) continue;
    const auto status = contents(entry.path() / "stat");
    const auto name = status.rfind(')');  // "pid (name) state parent ..."
    if (name != std::string::npos && std::stol(status.substr(name + 4)) == parent) return true;
  }
  return false;
}

TEST(ReexecTest, HelperStartsNoChildHere) {
  ASSERT_TRUE(hasChild(::getppid()));  // finds this test itself
  for (const auto& [environment, expected] :
       {std::pair<Strings, std::string>{{"A=b"}, std::string("A=b\0", 4)},
        {{"PALAVER_DISCLAIMED=0"}, std::string("PALAVER_DISCLAIMED=0\0", 21)}}) {
    HelperProcess helper(HelperProcess::Options{.environment = environment});
    EXPECT_EQ(helper.readEvent()["type"], "helper.status");
    EXPECT_TRUE(helper.sendLine(R"({"type":"ping","sentAt":7})"));
    EXPECT_EQ(helper.readEvent()["sentAt"], 7);
    EXPECT_FALSE(hasChild(helper.pid()));
    EXPECT_EQ(contents("/proc/" + std::to_string(helper.pid()) + "/environ"), expected);
    helper.closeInput();
    EXPECT_EQ(helper.wait(), exited(0));
  }
}
#endif

}  // namespace
}  // namespace palaver
