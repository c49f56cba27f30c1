#include "simulator/explore/Exploration.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "simulator/explore/Shrinker.h"
#include "simulator/explore/World.h"
#include "simulator/scenario/Invariants.h"
#include "simulator/scenario/ScenarioRunner.h"

namespace palaver {

namespace {

constexpr unsigned longestWorld = 60;  // s of real time; a world takes some ms

// What a worker process tells its parent, in shared memory.
struct Progress {
  std::uint64_t seed;      // being explored
  std::uint64_t worlds;    // explored completely
  std::uint64_t commands;  // of these
  bool hasFailed;          // an invariant was broken
};

// One Progress for each worker.
class SharedProgress {
 public:
  explicit SharedProgress(std::size_t count) : size_(count * sizeof(Progress)) {
    void* const memory = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "cannot share memory");
    items_ = new (memory) Progress[count]{};
  }
  ~SharedProgress() { munmap(items_, size_); }
  SharedProgress(const SharedProgress&) = delete;
  SharedProgress& operator=(const SharedProgress&) = delete;

  Progress& operator[](std::size_t number) { return items_[number]; }

 private:
  std::size_t size_;
  Progress* items_;
};

// The result of playing one world.
struct Outcome {
  std::string brokenInvariant;  // its id; empty if none
  std::string report;
  std::size_t commands = 0;
};

Outcome playWorld(const JSON& world) {
  const auto scenario = readScenario(world, "world");
  const auto record = recordOnce(scenario, scenario.seeds.front());
  Outcome outcome;
  outcome.commands = static_cast<std::size_t>(std::ranges::count_if(
      scenario.actions, [](const auto& action) { return std::holds_alternative<HostBytes>(action.what); }));
  if (const auto broken = brokenInvariant(scenario, record)) {
    outcome.brokenInvariant = broken->id;
    outcome.report = describe(*broken, scenario, record);
  }
  return outcome;
}

pid_t forked(const std::function<void()>& work) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "cannot start a process");
  if (child > 0) return child;
  try {
    work();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "PalaverSTTSimulator: %s\n", error.what());
    _exit(2);
  }
  _exit(0);
}

// Returns how a child ended, or nothing if it ended well.
std::string endOf(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return "";
  if (!WIFSIGNALED(status)) return "the process ends with status " + std::to_string(WEXITSTATUS(status));
  if (WTERMSIG(status) == SIGALRM) return "the process hangs";
  return "the process is ended by signal " + std::to_string(WTERMSIG(status));
}

// Plays a world in a child process, so that a crash or a hang is an outcome like another one.
Outcome playApart(const JSON& world) {
  int ends[2];
  if (pipe(ends) != 0) throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
  const pid_t child = forked([&] {
    close(ends[0]);
    alarm(longestWorld);
    const auto outcome = [&]() -> Outcome {
      try {
        return playWorld(world);
      } catch (const FileError&) {
        return {};  // the shrinker removed what the scenario needs
      }
    }();
    const std::string text = outcome.brokenInvariant + "\n" + outcome.report;
    for (std::string_view rest = text; !rest.empty();) {
      const auto count = write(ends[1], rest.data(), rest.size());
      if (count < 0) _exit(1);
      rest.remove_prefix(static_cast<std::size_t>(count));
    }
  });
  close(ends[1]);
  std::string text;
  char buffer[4096];
  for (ssize_t count; (count = read(ends[0], buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(count));
  close(ends[0]);
  if (const auto end = endOf(child); !end.empty()) return {"alive", "  " + end + "\n"};
  const auto line = text.find('\n');
  return {text.substr(0, line), text.substr(line + 1)};
}

void exploreSeeds(const ExplorationOptions& options, std::uint64_t first, Progress& progress) {
  for (std::uint64_t seed = first; seed <= options.lastSeed; seed += options.jobs) {
    progress.seed = seed;
    alarm(longestWorld);
    const auto outcome = playWorld(makeWorld({seed, options.commands}));
    progress.commands += outcome.commands;
    ++progress.worlds;
    progress.hasFailed = !outcome.brokenInvariant.empty();
    if (progress.hasFailed) return;
  }
}

void writeStep(std::string& text, const JSON& step, bool isLast) {
  text += "    " + step.dump() + (isLast ? "\n" : ",\n");
}

// Returns the scenario with one step a line.
std::string written(const JSON& world) {
  std::string text = "{\n";
  for (const auto& [key, value] : world.items())
    if (key != "conversation") text += "  " + JSON(key).dump() + ": " + value.dump() + ",\n";
  text += "  \"conversation\": [\n";
  const auto& steps = world.at("conversation");
  for (const auto& step : steps) writeStep(text, step, &step == &steps.back());
  return text + "  ]\n}\n";
}

void reportSeed(const ExplorationOptions& options, std::uint64_t seed) {
  auto world = makeWorld({seed, options.commands});
  const auto outcome = playApart(world);
  std::printf("FAILED seed %llu\n%s", static_cast<unsigned long long>(seed), outcome.report.c_str());
  world["title"] = "Breaks the invariant " + outcome.brokenInvariant + ".";
  const auto small = shrunk(std::move(world), [&](const JSON& candidate) {
    return playApart(candidate).brokenInvariant == outcome.brokenInvariant;
  });
  std::printf("  shrunk to %zu steps, which fail so:\n%s", small.at("conversation").size(),
              playApart(small).report.c_str());
  std::printf("  for PalaverSTTSimulator run:\n%s", written(small).c_str());
  if (options.folder.empty()) return;
  const auto path = options.folder / ("seed-" + std::to_string(seed) + ".json");
  if (!(std::ofstream(path) << written(small))) throw std::runtime_error("cannot write " + path.string());
}

template <typename Number>
Number readNumber(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size())
    throw std::invalid_argument("not a number: " + std::string(text));
  return number;
}

}  // namespace

int explore(const ExplorationOptions& options) {
  const auto begin = std::chrono::steady_clock::now();
  SharedProgress progress(options.jobs);
  std::vector<pid_t> workers;
  for (std::size_t i = 0; i < options.jobs; ++i)
    workers.push_back(forked([&] { exploreSeeds(options, options.firstSeed + i, progress[i]); }));
  std::optional<std::uint64_t> failed;
  std::uint64_t worlds = 0;
  std::uint64_t commands = 0;
  for (std::size_t i = 0; i < workers.size(); ++i) {
    const bool hasCrashed = !endOf(workers[i]).empty();
    worlds += progress[i].worlds;
    commands += progress[i].commands;
    if (hasCrashed || progress[i].hasFailed)
      failed = std::min(failed.value_or(progress[i].seed), progress[i].seed);
  }
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
  std::fprintf(stderr, "%llu worlds, %llu commands in %.1f s (%.0f per s), peak memory %ld KiB, %s\n",
               static_cast<unsigned long long>(worlds), static_cast<unsigned long long>(commands),
               elapsed.count(), static_cast<double>(commands) / elapsed.count(), usage.ru_maxrss,
               failed ? "an invariant is broken" : "no invariant is broken");
  if (failed) reportSeed(options, *failed);
  return failed ? 1 : 0;
}

int explore(std::span<char*> arguments) {
  ExplorationOptions options;
  if (arguments.empty() || arguments.size() % 2 != 0)
    throw std::invalid_argument("an option lacks its value");
  bool hasSeeds = false;
  for (std::size_t i = 0; i < arguments.size(); i += 2) {
    const std::string_view name = arguments[i];
    const std::string_view value = arguments[i + 1];
    if (name == "--seeds") {
      const auto dots = value.find("..");
      if (dots == std::string_view::npos)
        throw std::invalid_argument("--seeds needs a range, such as 1..100");
      options.firstSeed = readNumber<std::uint64_t>(value.substr(0, dots));
      options.lastSeed = readNumber<std::uint64_t>(value.substr(dots + 2));
      hasSeeds = true;
    } else if (name == "--commands") {
      options.commands = readNumber<std::size_t>(value);
    } else if (name == "--jobs") {
      options.jobs = std::max<std::size_t>(readNumber<std::size_t>(value), 1);
    } else if (name == "--save") {
      options.folder = value;
    } else {
      throw std::invalid_argument("unknown option: " + std::string(name));
    }
  }
  if (!hasSeeds) throw std::invalid_argument("--seeds is missing");
  if (options.lastSeed < options.firstSeed) throw std::invalid_argument("the range of seeds is empty");
  return explore(options);
}

}  // namespace palaver
