#include "simulator/explore/Exploration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include "simulator/explore/Shrinker.h"
#include "simulator/explore/World.h"
#include "simulator/scenario/Scenario.h"

namespace palaver {
namespace {

TEST(World, EqualSeedsMakeEqualWorlds) {
  EXPECT_EQ(makeWorld({17, 100}), makeWorld({17, 100}));
  EXPECT_NE(makeWorld({17, 100}), makeWorld({18, 100}));
}

TEST(World, EveryWorldIsScenario) {
  for (std::uint64_t seed = 1; seed <= 200; ++seed)
    EXPECT_NO_THROW(readScenario(makeWorld({seed, 40}), "world")) << seed;
}

TEST(Shrinker, OnlyStepsThatFailAreLeft) {
  JSON steps = JSON::array();
  for (int i = 0; i < 50; ++i)
    steps.push_back({{"at", i * 100}, {"host", {{"type", "ping"}, {"sentAt", i}}}});
  const auto has = [](const JSON& world, int number) {
    return std::ranges::any_of(world.at("conversation"), [&](const JSON& step) {
      return step.at("host").value("sentAt", -1) == number;
    });
  };
  const auto small = shrunk({{"title", "t"}, {"seed", 1}, {"conversation", steps}},
                            [&](const JSON& world) { return has(world, 7) && has(world, 31); });
  EXPECT_EQ(small.at("conversation").size(), 2U);
  EXPECT_FALSE(small.contains("seed"));
  EXPECT_EQ(small.at("conversation").at(1).at("at"), 0);
}

TEST(Shrinker, TriesAreLimited) {
  const JSON world{{"title", "t"}, {"conversation", JSON::array({{{"at", 0}}, {{"at", 0}}, {{"at", 0}}})}};
  std::size_t tries = 0;
  shrunk(
      world, [&](const JSON&) { return ++tries > 1000; }, 2);
  EXPECT_EQ(tries, 2U);
}

TEST(Exploration, WrongArgumentsAreRejected) {
  for (std::string value : {"1", "5..1", "a..b", "1..2x"}) {
    std::string name = "--seeds";
    char* arguments[] = {name.data(), value.data()};
    EXPECT_THROW(explore(std::span<char*>(arguments)), std::invalid_argument) << value;
  }
}

}  // namespace
}  // namespace palaver
