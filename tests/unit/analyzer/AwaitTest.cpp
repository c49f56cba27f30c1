#include "analyzer/Await.h"

#include <gtest/gtest.h>

#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "analyzer/Spawn.h"

namespace palaver {

namespace {

using Completion = UniqueFunction<void(int)>;

class AwaitTest : public testing::Test {
 protected:
  asio::awaitable<void> keep(std::function<void(Completion)> start) {
    results.push_back(co_await completionOf<int>(std::move(start)));
  }

  asio::io_context context;
  std::vector<int> results;
};

TEST_F(AwaitTest, CompletionInsideCallIsAnswer) {
  spawn(context.get_executor(), keep([](const Completion& completion) { completion(5); }));
  context.run();
  EXPECT_EQ(results, std::vector{5});
}

TEST_F(AwaitTest, CompletionInsideCallKeepsQueueOrder) {
  spawn(context.get_executor(), keep([this](const Completion& completion) {
          asio::post(context, [this] { results.push_back(1); });
          completion(2);
        }));
  context.run();
  EXPECT_EQ(results, (std::vector{1, 2}));
}

TEST_F(AwaitTest, CompletionOnOtherThreadResumesOnExecutor) {
  std::thread platform;
  std::thread::id resumedOn;
  const auto await = [&]() -> asio::awaitable<void> {
    co_await completionOf<int>([&](Completion completion) {
      platform = std::thread([completion = std::move(completion)] { completion(1); });
    });
    resumedOn = std::this_thread::get_id();
  };
  spawn(context.get_executor(), await());
  context.run();
  platform.join();
  EXPECT_EQ(resumedOn, std::this_thread::get_id());
}

TEST_F(AwaitTest, CompletionLongAfterCallIsAnswer) {
  Completion kept;
  spawn(context.get_executor(), keep([&](Completion completion) { kept = std::move(completion); }));
  context.poll();
  EXPECT_TRUE(results.empty());
  kept(9);
  kept = nullptr;
  context.run();
  EXPECT_EQ(results, std::vector{9});
}

TEST_F(AwaitTest, DestroyedCompletionDestroysCoroutine) {
  Completion kept;
  auto local = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = local;
  const auto await = [](Completion& into, std::shared_ptr<int> held) -> asio::awaitable<void> {
    co_await completionOf<int>([&](Completion completion) { into = std::move(completion); });
    ++*held;
    ADD_FAILURE() << "there was no answer";
  };
  spawn(context.get_executor(), await(kept, std::move(local)));
  context.poll();
  EXPECT_FALSE(watched.expired());
  kept = nullptr;
  context.restart();
  context.run();
  EXPECT_TRUE(watched.expired());
}

TEST_F(AwaitTest, CompletionDestroyedInsideCallDestroysCoroutine) {
  auto local = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = local;
  const auto await = [](std::shared_ptr<int> held) -> asio::awaitable<void> {
    co_await completionOf<int>([](const Completion&) {});
    ++*held;
    ADD_FAILURE() << "there was no answer";
  };
  spawn(context.get_executor(), await(std::move(local)));
  context.run();
  EXPECT_TRUE(watched.expired());
}

TEST_F(AwaitTest, OnlyErrorIsThrown) {
  std::vector<std::string> log;
  const auto await = [&log](std::optional<PlatformError> answer) -> asio::awaitable<void> {
    try {
      co_await successOf([&](const auto& completion) { completion(answer); });
      log.emplace_back("well");
    } catch (const PlatformError& error) {
      log.emplace_back(error.what());
    }
  };
  spawn(context.get_executor(), await(std::nullopt));
  spawn(context.get_executor(), await(PlatformError("d", 1, "broken")));
  context.run();
  EXPECT_EQ(log, (std::vector<std::string>{"well", "broken"}));
}

// Runs coroutines on a pool: the answer may arrive, and another thread may resume, before the
// call has returned.
TEST(Await, PoolCoroutinesSurviveAnswersFromAnyThread) {
  constexpr int coroutines = 200;
  constexpr int rounds = 20;
  asio::thread_pool pool(4);
  asio::thread_pool platform(3);
  std::atomic<int> sum = 0;
  const auto work = [&]() -> asio::awaitable<void> {
    int own = 0;  // touched by one thread at a time
    for (int i = 0; i < rounds; ++i) {
      own += co_await completionOf<int>([&platform, i](Completion completion) {
        if (i % 3 == 0) return completion(1);
        asio::post(platform, [completion = std::move(completion)] { completion(1); });
      });
    }
    sum += own;
  };
  for (int i = 0; i < coroutines; ++i) spawn(pool.get_executor(), work());
  pool.join();
  platform.join();
  EXPECT_EQ(sum, coroutines * rounds);
}

// Answers and destroyed completions race with the pool's threads.
TEST(Await, CompletionsMayBeDestroyedOnAnyThread) {
  constexpr int coroutines = 500;
  asio::thread_pool pool(3);
  asio::thread_pool platform(3);
  std::atomic<int> answered = 0;
  std::atomic<int> held = 0;
  struct Witness {
    explicit Witness(std::atomic<int>& counter) : count(counter) { ++count; }
    ~Witness() { --count; }
    Witness(const Witness&) = delete;
    Witness& operator=(const Witness&) = delete;
    std::atomic<int>& count;
  };
  const auto work = [&](int number) -> asio::awaitable<void> {
    const Witness witness(held);
    co_await completionOf<int>([&platform, number](Completion completion) {
      asio::post(platform, [completion = std::move(completion), number] {
        if (number % 2 == 0) completion(1);
      });
    });
    ++answered;
  };
  for (int i = 0; i < coroutines; ++i) spawn(pool.get_executor(), work(i));
  pool.join();
  platform.join();
  EXPECT_EQ(answered, coroutines / 2);
  EXPECT_EQ(held, 0);
}

}  // namespace
}  // namespace palaver
