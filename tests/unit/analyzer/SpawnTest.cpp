// Runs each test on a thread pool and on the simulated machine: their order must be the same.
#include "analyzer/Spawn.h"

#include <gtest/gtest.h>

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "simulator/machine/SimulatedPlatform.h"

namespace palaver {
namespace {

class Machine {
 public:
  virtual ~Machine() = default;
  virtual asio::any_io_executor executor() = 0;
  virtual void runAll() = 0;  // returns when all work is done

 protected:
  Machine() = default;
  Machine(const Machine&) = default;
  Machine& operator=(const Machine&) = default;
};

class Pool final : public Machine {
 public:
  asio::any_io_executor executor() override { return pool_.get_executor(); }
  void runAll() override { pool_.join(); }

 private:
  asio::thread_pool pool_{1};
};

class Simulation final : public Machine {
 public:
  asio::any_io_executor executor() override { return platform_.tasks.executor(); }
  void runAll() override {
    platform_.scheduler.waitUntil([] { return false; }, 1000);
  }

 private:
  SimulatedPlatform platform_;
};

struct Kind {
  const char* name;
  std::function<std::unique_ptr<Machine>()> make;
};

class SpawnTest : public testing::TestWithParam<Kind> {
 protected:
  asio::awaitable<void> step(std::string name) {
    log.push_back(std::move(name));
    co_return;
  }

  std::vector<std::string> log;
  std::unique_ptr<Machine> machine = GetParam().make();
};

using Log = std::vector<std::string>;

template <typename Executor>
void spawnInsideJob(const Executor& executor, Log& log,
                    std::function<asio::awaitable<void>(std::string)> step) {
  asio::post(executor, [executor, &log, step] {
    spawn(executor, step("spawned"));
    asio::post(executor, [&log] { log.push_back("posted later"); });
    log.push_back("end of job");
  });
}

TEST_P(SpawnTest, CoroutineStartsAfterTheJobThatSpawnsIt) {
  spawnInsideJob(machine->executor(), log, [this](std::string name) { return step(std::move(name)); });
  machine->runAll();
  EXPECT_EQ(log, (Log{"end of job", "spawned", "posted later"}));
}

TEST_P(SpawnTest, CoroutineOnStrandStartsAfterTheJobThatSpawnsIt) {
  spawnInsideJob(asio::make_strand(machine->executor()), log,
                 [this](std::string name) { return step(std::move(name)); });
  machine->runAll();
  EXPECT_EQ(log, (Log{"end of job", "spawned", "posted later"}));
}

TEST_P(SpawnTest, CoroutinesStartInTheOrderOfSpawning) {
  const auto strand = asio::make_strand(machine->executor());
  asio::post(strand, [this] { log.push_back("earlier job"); });
  for (const auto* const name : {"a", "b"}) spawn(strand, step(name));
  asio::post(strand, [this] { log.push_back("later job"); });
  machine->runAll();
  EXPECT_EQ(log, (Log{"earlier job", "a", "b", "later job"}));
}

// Only a caller of the executor can see it: a thread of the pool would end the process.
TEST(SpawnError, ExceptionThatLeavesCoroutinePropagatesOutOfExecutor) {
  asio::io_context context;
  const auto failing = []() -> asio::awaitable<void> {
    throw std::runtime_error("a defect");
    co_return;
  };
  spawn(context.get_executor(), failing());
  EXPECT_THROW(context.run(), std::runtime_error);
}

INSTANTIATE_TEST_SUITE_P(, SpawnTest,
                         testing::Values(Kind{"Pool", [] { return std::make_unique<Pool>(); }},
                                         Kind{"Simulation", [] { return std::make_unique<Simulation>(); }}),
                         [](const auto& kind) { return kind.param.name; });

}  // namespace
}  // namespace palaver
