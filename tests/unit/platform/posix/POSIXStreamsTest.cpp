#include "platform/posix/POSIXStreams.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace palaver {
namespace {

// Owns two connected descriptors.
class Pair {
 public:
  enum class Kind { pipe, socket };

  explicit Pair(Kind kind) {
    const int failure =
        kind == Kind::pipe ? ::pipe(ends_.data()) : ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_.data());
    EXPECT_EQ(failure, 0);
  }
  ~Pair() {
    closeReader();
    closeWriter();
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

  int reader() const { return ends_[0]; }
  int writer() const { return ends_[1]; }
  void closeReader() { closeOnce(ends_[0]); }
  void closeWriter() { closeOnce(ends_[1]); }
  static void setNonBlocking(int descriptor) {
    ASSERT_EQ(::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | O_NONBLOCK), 0);
  }

 private:
  static void closeOnce(int& descriptor) {
    if (descriptor >= 0) ::close(descriptor);
    descriptor = -1;
  }

  std::array<int, 2> ends_{-1, -1};
};

std::string pattern(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 31 + i / 251);
  return text;
}

// Reads to the end in reads of `step` bytes.
std::string readAll(int descriptor, std::size_t step) {
  std::string all, bytes(step, '\0');
  for (;;) {
    const ssize_t count = ::read(descriptor, bytes.data(), step);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return all;
    all.append(bytes, 0, static_cast<std::size_t>(count));
  }
}

// Collects the input in buffers of a given size and reports its end.
class Collector final : public InputHandler {
 public:
  explicit Collector(std::size_t room) : room_(room, '\0') {}

  std::span<char> prepare() override { return room_; }
  void received(std::size_t count) override {
    EXPECT_GE(count, 1U);
    EXPECT_LE(count, room_.size());
    EXPECT_FALSE(hasEnded_);
    text_.append(room_, 0, count);
    reads_.fetch_add(1);
  }
  void ended() override {
    EXPECT_FALSE(hasEnded_);
    hasEnded_ = true;
    end_.set_value();
  }

  int reads() const { return reads_; }
  // Waits for the end and returns all input. None after the deadline.
  std::optional<std::string> awaitEnd() {
    if (end_.get_future().wait_for(std::chrono::seconds(60)) != std::future_status::ready)
      return std::nullopt;
    return text_;
  }

 private:
  std::string room_, text_;
  bool hasEnded_ = false;
  std::atomic<int> reads_ = 0;
  std::promise<void> end_;
};

// Interrupts the system calls of a thread repeatedly until destroyed.
class Interruptions {
 public:
  explicit Interruptions(pthread_t target) {
    struct sigaction action {};
    action.sa_handler = [](int) { interrupted.fetch_add(1); };  // without SA_RESTART
    EXPECT_EQ(::sigaction(SIGUSR1, &action, &before_), 0);
    interrupted = 0;
    thread_ = std::thread([this, target] {
      while (!isStopped_) {
        ::pthread_kill(target, SIGUSR1);
        std::this_thread::yield();
      }
    });
  }
  ~Interruptions() {
    isStopped_ = true;
    thread_.join();
    ::sigaction(SIGUSR1, &before_, nullptr);
  }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

  static inline std::atomic<int> interrupted{0};

 private:
  struct sigaction before_ {};
  std::atomic<bool> isStopped_ = false;
  std::thread thread_;
};

class POSIXStreamsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { std::signal(SIGPIPE, SIG_IGN); }
};

struct Shape {
  Pair::Kind kind;
  bool nonBlocking;
};
constexpr Shape shapes[] = {{Pair::Kind::pipe, false},
                            {Pair::Kind::pipe, true},
                            {Pair::Kind::socket, false},
                            {Pair::Kind::socket, true}};

TEST_F(POSIXStreamsTest, SlowReaderGetsEverything) {
  const auto text = pattern(1 << 20);
  for (const auto& [kind, nonBlocking] : shapes)
    for (const std::size_t step : {std::size_t{1} << 16, std::size_t{777}}) {
      Pair pair(kind);
      if (nonBlocking) Pair::setNonBlocking(pair.writer());
      auto read = std::async(std::launch::async, [&] { return readAll(pair.reader(), step); });
      DescriptorOutput output(pair.writer());
      output.write(text);
      pair.closeWriter();
      EXPECT_TRUE(read.get() == text);
    }
}

TEST_F(POSIXStreamsTest, ByteWiseReaderGetsEverything) {
  const auto text = pattern(200000);  // exceeds the buffers, so that writes are partial
  for (const auto& [kind, nonBlocking] : shapes) {
    Pair pair(kind);
    if (nonBlocking) Pair::setNonBlocking(pair.writer());
    auto read = std::async(std::launch::async, [&] { return readAll(pair.reader(), 1); });
    DescriptorOutput output(pair.writer());
    output.write(text);
    pair.closeWriter();
    EXPECT_TRUE(read.get() == text);
  }
}

TEST_F(POSIXStreamsTest, EmptyWriteWritesNothing) {
  Pair pair(Pair::Kind::socket);
  DescriptorOutput output(pair.writer());
  output.write("");
  pair.closeWriter();
  EXPECT_EQ(readAll(pair.reader(), 16), "");
}

TEST_F(POSIXStreamsTest, InterruptedWriteResumes) {
  const auto text = pattern(4 << 20);
  for (const auto& [kind, nonBlocking] : shapes) {
    Pair pair(kind);
    if (nonBlocking) Pair::setNonBlocking(pair.writer());
    std::future<std::string> read;
    {
      const Interruptions interruptions(::pthread_self());
      // Reads nothing before the first interruption. Otherwise the write could end without one.
      read = std::async(std::launch::async, [&] {
        while (Interruptions::interrupted == 0) std::this_thread::yield();
        return readAll(pair.reader(), 4096);
      });
      DescriptorOutput output(pair.writer());
      output.write(text);
    }
    pair.closeWriter();
    EXPECT_TRUE(read.get() == text);
  }
}

TEST_F(POSIXStreamsTest, ClosedReaderLosesBytesSilently) {
  for (const auto& [kind, nonBlocking] : shapes) {
    Pair pair(kind);
    if (nonBlocking) Pair::setNonBlocking(pair.writer());
    pair.closeReader();
    DescriptorOutput output(pair.writer());
    output.write(pattern(1 << 20));
    output.write("again");
  }
}

TEST_F(POSIXStreamsTest, ReaderClosingDuringWriteUnblocksIt) {
  for (const auto& [kind, nonBlocking] : shapes) {
    Pair pair(kind);
    if (nonBlocking) Pair::setNonBlocking(pair.writer());
    auto written = std::async(std::launch::async, [&] {
      DescriptorOutput(pair.writer()).write(pattern(8 << 20));  // far exceeds the buffers
    });
    // The first byte shows that the write has begun.
    char byte = 0;
    ASSERT_EQ(::read(pair.reader(), &byte, 1), 1);
    pair.closeReader();
    EXPECT_EQ(written.wait_for(std::chrono::seconds(60)), std::future_status::ready);
  }
}

TEST_F(POSIXStreamsTest, UnopenDescriptorLosesBytesSilently) {
  DescriptorOutput(-1).write("text");
  Pair pair(Pair::Kind::pipe);
  const int closed = pair.writer();
  pair.closeWriter();
  DescriptorOutput(closed).write("text");
  DescriptorOutput(pair.reader()).write("text");  // open, but not for writing
}

TEST_F(POSIXStreamsTest, EverythingIsReadInAnyBufferSize) {
  const auto text = pattern(100000);
  for (const auto& [kind, nonBlocking] : shapes)
    for (const std::size_t room : {std::size_t{1}, std::size_t{1000}, std::size_t{1} << 20}) {
      Pair pair(kind);
      if (nonBlocking) Pair::setNonBlocking(pair.reader());
      Collector collector(room);
      DescriptorInput input(pair.reader());
      input.start(collector);
      DescriptorOutput(pair.writer()).write(text);
      pair.closeWriter();
      EXPECT_TRUE(collector.awaitEnd() == text);
      EXPECT_GE(collector.reads(), static_cast<int>((text.size() + room - 1) / room));
    }
}

TEST_F(POSIXStreamsTest, ByteWiseWriterIsReadWhole) {
  const auto text = pattern(5000);
  for (const auto& [kind, nonBlocking] : shapes) {
    Pair pair(kind);
    if (nonBlocking) Pair::setNonBlocking(pair.reader());
    Collector collector(4096);
    DescriptorInput input(pair.reader());
    input.start(collector);
    for (const char byte : text) ASSERT_EQ(::write(pair.writer(), &byte, 1), 1);
    pair.closeWriter();
    EXPECT_TRUE(collector.awaitEnd() == text);
  }
}

TEST_F(POSIXStreamsTest, InterruptedReadResumes) {
  const auto text = pattern(1 << 20);
  for (const auto& [kind, nonBlocking] : shapes) {
    Pair pair(kind);
    if (nonBlocking) Pair::setNonBlocking(pair.reader());
    // Captures the handle of the reader thread when it requests the first buffer.
    class ThreadCapture final : public InputHandler {
     public:
      std::span<char> prepare() override {
        if (!std::exchange(hasThread_, true)) thread.set_value(::pthread_self());
        return collector.prepare();
      }
      void received(std::size_t count) override { collector.received(count); }
      void ended() override {
        mayEnd.get_future().wait();  // keeps the thread alive until the signals end
        collector.ended();
      }
      Collector collector{4096};
      std::promise<pthread_t> thread;
      std::promise<void> mayEnd;

     private:
      bool hasThread_ = false;
    } handler;
    DescriptorInput input(pair.reader());
    input.start(handler);
    {
      const Interruptions interruptions(handler.thread.get_future().get());
      for (std::size_t at = 0; at < text.size(); at += 512)
        DescriptorOutput(pair.writer()).write(text.substr(at, 512));
      while (Interruptions::interrupted == 0) std::this_thread::yield();
      pair.closeWriter();
    }
    handler.mayEnd.set_value();
    EXPECT_TRUE(handler.collector.awaitEnd() == text);
  }
}

TEST_F(POSIXStreamsTest, UnreadableInputCountsAsEnded) {
  {
    Collector collector(16);
    DescriptorInput input(-1);
    input.start(collector);
    EXPECT_EQ(collector.awaitEnd(), "");
  }
  const int directory = ::open("/", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(directory, 0);
  Collector collector(16);
  DescriptorInput input(directory);
  input.start(collector);
  EXPECT_EQ(collector.awaitEnd(), "");
  ::close(directory);
}

TEST_F(POSIXStreamsTest, ResetConnectionCountsAsEnded) {
  Pair pair(Pair::Kind::socket);
  // Unread bytes at the closed end make the read of the other end fail instead of reporting the end.
  ASSERT_EQ(::write(pair.reader(), "unread", 6), 6);
  Collector collector(16);
  DescriptorInput input(pair.reader());
  input.start(collector);
  pair.closeWriter();
  EXPECT_EQ(collector.awaitEnd(), "");
}

// Runs in a child process, which keeps the test's descriptors open.
[[noreturn]] void prepareWithClosed(int mask) {
  for (int descriptor = 0; descriptor < 3; ++descriptor)
    if (mask >> descriptor & 1) ::close(descriptor);
  prepareStandardStreams();
  for (int descriptor = 0; descriptor < 3; ++descriptor)
    if (::fcntl(descriptor, F_GETFD) < 0) ::_exit(10 + descriptor);
  struct sigaction action {};
  ::sigaction(SIGPIPE, nullptr, &action);
  if (action.sa_handler != SIG_IGN) ::_exit(20);
  // A file opened later must not get a standard descriptor.
  if (::open("/dev/null", O_RDONLY | O_CLOEXEC) < 3) ::_exit(21);
  // A replaced stream reads as ended and discards writes.
  char byte = 0;
  if (mask & 1 && ::read(0, &byte, 1) != 0) ::_exit(22);
  if (mask & 2 && ::write(1, "x", 1) != 1) ::_exit(23);
  if (mask & 4 && ::write(2, "x", 1) != 1) ::_exit(24);
  ::_exit(0);
}

TEST(POSIXStreamsDeathTest, ClosedStandardStreamsAreReplacedByDevNull) {
  for (int mask = 0; mask < 8; ++mask)
    EXPECT_EXIT(prepareWithClosed(mask), ::testing::ExitedWithCode(0), "") << mask;
}

}  // namespace
}  // namespace palaver
