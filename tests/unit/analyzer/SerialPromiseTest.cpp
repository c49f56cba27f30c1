#include "analyzer/SerialPromise.h"

#include <gtest/gtest.h>

#include <asio/co_spawn.hpp>
#include <asio/detached.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/strand.hpp>
#include <asio/thread_pool.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "analyzer/Spawn.h"

namespace palaver {

namespace {

// Counts its destructions. A coroutine's local shows when the coroutine is destroyed.
struct DestructionCounter {
  explicit DestructionCounter(int& count) : count_(count) {}
  ~DestructionCounter() { ++count_; }
  DestructionCounter(const DestructionCounter&) = delete;
  DestructionCounter& operator=(const DestructionCounter&) = delete;
  int& count_;
};

class SerialPromiseTest : public testing::Test {
 protected:
  asio::awaitable<void> await(std::string name) {
    const DestructionCounter counter(destroyed);
    try {
      log.push_back(name + " has " + std::to_string(co_await promise.value()));
    } catch (const std::exception& error) {
      log.push_back(name + " failed: " + error.what());
    }
  }
  // Runs the coroutines that are ready. Waiting coroutines keep the context busy.
  void run() {
    context.poll();
    context.restart();
  }

  asio::io_context context;
  SerialPromise<int> promise;
  std::vector<std::string> log;
  int destroyed = 0;
};

using Log = std::vector<std::string>;

TEST_F(SerialPromiseTest, WaitersResumeInOrderInsideResolve) {
  for (const auto* const name : {"a", "b", "c"}) spawn(context.get_executor(), await(name));
  run();
  EXPECT_EQ(log, Log());
  promise.resolve(7);
  EXPECT_EQ(log, (Log{"a has 7", "b has 7", "c has 7"}));
}

TEST_F(SerialPromiseTest, LateWaiterGetsValueImmediately) {
  promise.resolve(7);
  spawn(context.get_executor(), await("a"));
  spawn(context.get_executor(), await("b"));
  run();
  EXPECT_EQ(log, (Log{"a has 7", "b has 7"}));
}

TEST_F(SerialPromiseTest, ErrorIsThrownToAllWaiters) {
  spawn(context.get_executor(), await("a"));
  run();
  promise.reject(std::make_exception_ptr(std::runtime_error("no")));
  spawn(context.get_executor(), await("b"));
  run();
  EXPECT_EQ(log, (Log{"a failed: no", "b failed: no"}));
}

TEST_F(SerialPromiseTest, AbandonDestroysWaiters) {
  spawn(context.get_executor(), await("a"));
  spawn(context.get_executor(), await("b"));
  run();
  promise.abandon();
  run();  // coroutines are destroyed through their executor
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(log, Log());
}

TEST_F(SerialPromiseTest, WaiterOfAbandonedPromiseIsDestroyed) {
  promise.abandon();
  spawn(context.get_executor(), await("late"));
  run();
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(log, Log());
}

TEST_F(SerialPromiseTest, KeeperAbandonsWithoutValue) {
  spawn(context.get_executor(), await("a"));
  run();
  { const SerialPromise<int>::Keeper keeper(promise); }
  run();
  EXPECT_EQ(destroyed, 1);
}

TEST_F(SerialPromiseTest, KeeperIsInertOnceValueIsSet) {
  spawn(context.get_executor(), await("a"));
  run();
  {
    const SerialPromise<int>::Keeper keeper(promise);
    promise.resolve(3);
  }
  spawn(context.get_executor(), await("b"));
  run();
  EXPECT_EQ(log, (Log{"a has 3", "b has 3"}));
}

TEST_F(SerialPromiseTest, WaiterMayWaitAgainAndStartOthers) {
  const auto twice = [this]() -> asio::awaitable<void> {
    const int first = co_await promise.value();
    spawn(context.get_executor(), await("other"));
    log.push_back("sum " + std::to_string(first + co_await promise.value()));
  };
  spawn(context.get_executor(), twice());
  run();
  promise.resolve(2);
  run();
  EXPECT_EQ(log, (Log{"sum 4", "other has 2"}));
}

// Abandoning breaks the cycle of a promise and a waiter that owns it. The address sanitizer would
// report the leak.
TEST(SerialPromise, WaiterOwningPromiseIsReleased) {
  struct Owner {
    explicit Owner(int& count) : counter(count) {}
    DestructionCounter counter;
    SerialPromise<int> promise;
  };
  int destroyed = 0;
  asio::io_context context;
  auto owner = std::make_shared<Owner>(destroyed);
  const auto wait = [](std::shared_ptr<Owner> self) -> asio::awaitable<void> {
    co_await self->promise.value();
    ADD_FAILURE() << "the promise has no value";
  };
  spawn(context.get_executor(), wait(owner));
  context.poll();
  context.restart();
  owner->promise.abandon();
  owner.reset();
  context.poll();
  EXPECT_EQ(destroyed, 1);
}

TEST(SerialPromise, WaitersOnPoolStrandResumeInOrder) {
  constexpr int count = 1000;
  SerialPromise<int> promise;
  std::vector<int> order;
  asio::thread_pool pool(4);
  const auto strand = asio::make_strand(pool);
  const auto wait = [&](int number) -> asio::awaitable<void> {
    co_await promise.value();
    order.push_back(number);
  };
  for (int i = 0; i < count; ++i) {
    if (i == count / 2) asio::post(strand, [&] { promise.resolve(1); });
    spawn(strand, wait(i));
  }
  pool.join();
  ASSERT_EQ(order.size(), std::size_t{count});
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

}  // namespace
}  // namespace palaver
