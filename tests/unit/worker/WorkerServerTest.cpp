#include "worker/WorkerServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "platform/linux/FrameOutbox.h"

namespace palaver {
namespace {

using testing::ElementsAre;

constexpr std::chrono::seconds deadline{60};

// A task as the engine holds it. Any thread.
class HeldTask {
 public:
  RecognitionOptions options;
  ResultHandler handler;

  void append(std::shared_ptr<const PCMBuffer> buffer) {
    const std::lock_guard guard(lock_);
    taken_ += buffer->frameLength();
    held_.push_back(std::move(buffer));
    changed_.notify_all();
  }
  void endAudio() {
    const std::lock_guard guard(lock_);
    ended_ = true;
    changed_.notify_all();
  }
  void cancel() {
    const std::lock_guard guard(lock_);
    cancelled_ = true;
    changed_.notify_all();
  }

  // Waits until the engine got that many frames.
  bool waitForFrames(std::uint64_t frames) {
    return wait([&] { return taken_ >= frames; });
  }
  bool waitForEnd() {
    return wait([&] { return ended_; });
  }
  bool waitForCancel() {
    return wait([&] { return cancelled_; });
  }
  std::uint64_t frames() {
    const std::lock_guard guard(lock_);
    return taken_;
  }
  // First sample of each buffer so far.
  std::vector<int> firstSamples() {
    const std::lock_guard guard(lock_);
    std::vector<int> samples;
    for (const auto& buffer : held_) samples.push_back(buffer->int16ChannelData()[0]);
    return samples;
  }
  // Takes the audio, as an engine does when it has read the samples.
  void release() {
    std::vector<std::shared_ptr<const PCMBuffer>> released;
    const std::lock_guard guard(lock_);
    std::swap(released, held_);
  }

 private:
  template <typename Condition>
  bool wait(Condition condition) {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, deadline, condition);
  }

  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::shared_ptr<const PCMBuffer>> held_;
  std::uint64_t taken_ = 0;
  bool ended_ = false;
  bool cancelled_ = false;
};

// An engine that does what the test says. Answers the empty tasks of prepared channels itself.
class HeldEngine final : public SpeechRecognition, public StepReporter {
 public:
  StepHandler reportStep;  // set before the engine is ready
  void reportSteps(StepHandler handler) override { reportStep = std::move(handler); }

  PlatformError loadAnswer{"Held", 1110, "No speech detected"};
  bool servesLocale = true;
  std::atomic<bool> throws = false;

  AuthorizationStatus authorizationStatus() const override { return AuthorizationStatus::authorized; }
  void requestAuthorization(std::function<void(AuthorizationStatus)>) override {}
  std::unique_ptr<SpeechRecognizer> makeRecognizer(std::string_view locale) override {
    if (!servesLocale || locale != "xx-XX") return nullptr;
    return std::make_unique<Recognizer>(*this, recognizers_++);
  }

  int recognizers() const { return recognizers_; }
  // Waits for the task with audio of that index.
  std::shared_ptr<HeldTask> task(std::size_t index) {
    std::unique_lock guard(lock_);
    if (!started_.wait_for(guard, deadline, [&] { return tasks_.size() > index; }))
      throw std::runtime_error("no such task");
    return tasks_[index].second;
  }
  int recognizerOfTask(std::size_t index) {
    const std::lock_guard guard(lock_);
    return tasks_.at(index).first;
  }

 private:
  class Request final : public RecognitionRequest {
   public:
    Request(HeldEngine& engine, RecognitionOptions options) : engine_(engine) {
      held->options = std::move(options);
    }
    void append(std::shared_ptr<const PCMBuffer> buffer) override { held->append(std::move(buffer)); }
    void endAudio() override {
      held->endAudio();
      if (isPreparation) held->handler(std::nullopt, engine_.loadAnswer);
    }

    const std::shared_ptr<HeldTask> held = std::make_shared<HeldTask>();
    bool isPreparation = false;

   private:
    HeldEngine& engine_;
  };
  class Task final : public RecognitionTask {
   public:
    explicit Task(std::shared_ptr<HeldTask> held) : held_(std::move(held)) {}
    void cancel() override { held_->cancel(); }

   private:
    const std::shared_ptr<HeldTask> held_;
  };
  class Recognizer final : public SpeechRecognizer {
   public:
    Recognizer(HeldEngine& engine, int number) : engine_(engine), number_(number) {}
    bool supportsOnDeviceRecognition() const override { return true; }
    std::shared_ptr<RecognitionRequest> makeRequest(RecognitionOptions options) override {
      if (engine_.throws) throw std::runtime_error("no thread");
      return std::make_shared<Request>(engine_, std::move(options));
    }
    std::unique_ptr<RecognitionTask> recognitionTask(const std::shared_ptr<RecognitionRequest>& request,
                                                     ResultHandler handler) override {
      auto& own = static_cast<Request&>(*request);
      own.held->handler = std::move(handler);
      // The server prepares a recognizer with its first task.
      own.isPreparation = isFirst_ && number_ < static_cast<int>(WorkerServer::preparedChannels);
      isFirst_ = false;
      if (!own.isPreparation) engine_.add(number_, own.held);
      return std::make_unique<Task>(own.held);
    }

   private:
    HeldEngine& engine_;
    const int number_;
    bool isFirst_ = true;
  };

  void add(int recognizer, std::shared_ptr<HeldTask> task) {
    const std::lock_guard guard(lock_);
    tasks_.emplace_back(recognizer, std::move(task));
    started_.notify_all();
  }

  std::atomic<int> recognizers_ = 0;
  std::mutex lock_;
  std::condition_variable started_;
  std::vector<std::pair<int, std::shared_ptr<HeldTask>>> tasks_;
};

// The helper's side of a server that runs on a thread of its own.
class WorkerServerTest : public testing::Test {
 protected:
  void SetUp() override {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    socket_ = Descriptor(ends[0]);
    other_ = Descriptor(ends[1]);
  }
  void TearDown() override {
    socket_.close();
    if (thread_.joinable()) thread_.join();
  }

  void serve() {
    thread_ = std::thread([this] {
      try {
        WorkerServer(engine_, "xx-XX", std::move(other_)).run();
      } catch (const MalformedFrame&) {
        wasMalformed_ = true;
      }
    });
  }
  void serveUntilReady() {
    serve();
    ASSERT_EQ(next().type, FrameType::ready);
  }

  void send(std::string_view bytes) const {
    ASSERT_EQ(::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  void start(std::uint32_t task, std::uint32_t channel = 1) const { send(encodeStart(task, channel, {})); }
  // Sends one second of audio, whose samples are the number of that second.
  void sendSecond(std::uint32_t task, int second) const {
    FrameOutbox outbox;
    const AudioFormat format{CommonFormat::int16, workerSampleRate, 1, true};
    auto buffer = std::make_shared<PCMBuffer>(format, maxSamplesOfFrame);
    std::fill_n(buffer->int16ChannelData(), maxSamplesOfFrame, static_cast<std::int16_t>(second));
    buffer->setFrameLength(maxSamplesOfFrame);
    outbox.pushAudio(task, static_cast<std::uint64_t>(second) * workerSampleRate, buffer, 0,
                     maxSamplesOfFrame);
    while (outbox.flush(socket_.get()) && !outbox.isEmpty()) {
      pollfd writable{socket_.get(), POLLOUT, 0};
      ASSERT_EQ(::poll(&writable, 1, 60'000), 1);
    }
  }

  // Waits for the next frame that is not `consumed`. The payload is valid until the next call.
  Frame next() {
    for (;;) {
      while (const auto frame = decoder_.next()) {
        if (frame->type != FrameType::consumed) return *frame;
        consumed_.push_back(decodeConsumed(frame->payload));
      }
      pollfd readable{socket_.get(), POLLIN, 0};
      const auto room = decoder_.prepare();
      const auto count =
          ::poll(&readable, 1, 60'000) == 1 ? ::recv(socket_.get(), room.data(), room.size(), 0) : 0;
      if (count <= 0) throw std::runtime_error("the server sends nothing");
      decoder_.received(static_cast<std::size_t>(count));
    }
  }

  HeldEngine engine_;
  Descriptor socket_, other_;
  FrameDecoder decoder_;
  std::vector<std::uint64_t> consumed_;
  std::atomic<bool> wasMalformed_ = false;
  std::thread thread_;
};

TEST_F(WorkerServerTest, EmptyTaskShowsThatModelIsLoaded) {
  serveUntilReady();
  start(1);
  engine_.task(0);
  EXPECT_EQ(engine_.recognizers(), 2);
}

TEST_F(WorkerServerTest, FailedLoadingIsReported) {
  engine_.loadAnswer = PlatformError("Held", 1, "means is empty");
  serve();
  const auto frame = next();
  ASSERT_EQ(frame.type, FrameType::failed);
  EXPECT_EQ(decodeFailure(frame.payload).localizedDescription(), "means is empty");
}

TEST_F(WorkerServerTest, ForeignLocaleIsReported) {
  engine_.servesLocale = false;
  serve();
  const auto frame = next();
  ASSERT_EQ(frame.type, FrameType::failed);
  EXPECT_EQ(decodeFailure(frame.payload).localizedDescription(), "it does not serve the locale xx-XX");
}

TEST_F(WorkerServerTest, EngineThatCannotStartIsReported) {
  engine_.throws = true;
  serve();
  const auto frame = next();
  ASSERT_EQ(frame.type, FrameType::failed);
  EXPECT_EQ(decodeFailure(frame.payload).localizedDescription(), "the speech engine cannot start: no thread");
}

TEST_F(WorkerServerTest, FirstChannelsUsePreparedRecognizers) {
  serveUntilReady();
  for (std::uint32_t task = 1; task <= 4; ++task) start(task, task == 4 ? 1 : task);
  engine_.task(3);
  EXPECT_EQ(engine_.recognizerOfTask(0), 0);
  EXPECT_EQ(engine_.recognizerOfTask(1), 1);
  EXPECT_EQ(engine_.recognizerOfTask(2), 2);
  EXPECT_EQ(engine_.recognizerOfTask(3), 0) << "a channel keeps its recognizer";
}

TEST_F(WorkerServerTest, AudioReachesEngineAndAnswersReturn) {
  serveUntilReady();
  send(encodeStart(7, 1, {.shouldReportPartialResults = false, .contextualStrings = {"a phrase"}}));
  sendSecond(7, 0);
  sendSecond(7, 1);
  send(encodeFrame(FrameType::endAudio, 7));
  const auto task = engine_.task(0);
  ASSERT_TRUE(task->waitForEnd());
  EXPECT_THAT(task->firstSamples(), ElementsAre(0, 1));
  EXPECT_FALSE(task->options.shouldReportPartialResults);
  EXPECT_THAT(task->options.contextualStrings, ElementsAre("a phrase"));
  task->handler(RecognitionResult{"one", {{"one", 0.5, 0.25}}, false}, std::nullopt);
  task->handler(RecognitionResult{"one two", {{"one", 0.5, 0.25}, {"two", 1, 0.5}}, true}, std::nullopt);
  auto frame = next();
  ASSERT_EQ(frame.type, FrameType::answer);
  EXPECT_EQ(frame.id, 7U);
  EXPECT_EQ(decodeAnswer(frame.payload).result->formattedString, "one");
  frame = next();
  const auto final = decodeAnswer(frame.payload);
  EXPECT_TRUE(final.result->isFinal);
  EXPECT_EQ(final.result->segments[1].timestamp, 1);
}

TEST_F(WorkerServerTest, StepsAreReportedWhenTheyAreLongOrRare) {
  serveUntilReady();
  const std::int64_t second = workerSampleRate;
  engine_.reportStep(second);       // the first one
  engine_.reportStep(20 * second);  // long
  engine_.reportStep(second);       // ends a long one
  std::vector<std::uint64_t> decoded;
  for (int i = 0; i < 3; ++i) {
    const auto frame = next();
    ASSERT_EQ(frame.type, FrameType::decoding);
    decoded.push_back(decodeDecoding(frame.payload) / workerSampleRate);
  }
  EXPECT_THAT(decoded, ElementsAre(1, 20, 1));
}

TEST_F(WorkerServerTest, ConsumedAudioIsReported) {
  serveUntilReady();
  start(1);
  const auto task = engine_.task(0);
  for (int second = 0; second < 3; ++second) {
    sendSecond(1, second);
    ASSERT_TRUE(task->waitForFrames(static_cast<std::uint64_t>(second + 1) * workerSampleRate));
    task->release();
  }
  task->handler(std::nullopt, PlatformError("Held", 1110, "No speech detected"));
  EXPECT_EQ(next().type, FrameType::answer);
  EXPECT_THAT(consumed_, ElementsAre(16000, 32000, 48000));
}

TEST_F(WorkerServerTest, OldestWaitingAudioIsDroppedAndTimesStayRight) {
  serveUntilReady();
  start(1);
  const auto task = engine_.task(0);
  // 30 s are with the engine and 30 s wait; 10 s more push the oldest ten of those that wait out.
  for (int second = 0; second < 70; ++second) sendSecond(1, second);
  start(2, 2);  // has been handled when the audio has
  engine_.task(1);
  EXPECT_EQ(task->frames(), WorkerServer::engineFrames);
  task->release();
  ASSERT_TRUE(task->waitForFrames(WorkerServer::engineFrames + WorkerServer::maxWaitingFrames));
  EXPECT_EQ(task->firstSamples().front(), 40);
  EXPECT_EQ(task->firstSamples().back(), 69);
  task->handler(RecognitionResult{"a b", {{"a", 29.5, 0.25}, {"b", 30, 0.25}}, true}, std::nullopt);
  const auto frame = next();
  const auto result = decodeAnswer(frame.payload).result;
  EXPECT_EQ(result->segments[0].timestamp, 29.5);
  EXPECT_EQ(result->segments[1].timestamp, 40);
}

TEST_F(WorkerServerTest, EndOfAudioWaitsForWaitingAudio) {
  serveUntilReady();
  start(1);
  const auto task = engine_.task(0);
  for (int second = 0; second < 31; ++second) sendSecond(1, second);
  send(encodeFrame(FrameType::endAudio, 1));
  ASSERT_TRUE(task->waitForFrames(WorkerServer::engineFrames));
  task->release();
  ASSERT_TRUE(task->waitForEnd());
  EXPECT_THAT(task->firstSamples(), ElementsAre(30));
}

TEST_F(WorkerServerTest, GapsInAudioMoveTimes) {
  serveUntilReady();
  start(1);
  const auto task = engine_.task(0);
  for (const int second : {2, 3, 7}) sendSecond(1, second);
  ASSERT_TRUE(task->waitForFrames(3 * workerSampleRate));
  task->handler(RecognitionResult{"a b c", {{"a", 0, 0.5}, {"b", 1.5, 0.25}, {"c", 2.5, 0.25}}, true},
                std::nullopt);
  const auto frame = next();
  const auto result = decodeAnswer(frame.payload).result;
  EXPECT_EQ(result->segments[0].timestamp, 2);
  EXPECT_EQ(result->segments[1].timestamp, 3.5);
  EXPECT_EQ(result->segments[2].timestamp, 7.5);
}

TEST_F(WorkerServerTest, CancelledTaskIsForgotten) {
  serveUntilReady();
  start(1);
  const auto task = engine_.task(0);
  send(encodeFrame(FrameType::cancelTask, 1));
  ASSERT_TRUE(task->waitForCancel());
  sendSecond(1, 0);
  send(encodeFrame(FrameType::endAudio, 1));
  send(encodeFrame(FrameType::cancelTask, 1));
  start(2);
  engine_.task(1);
  EXPECT_EQ(task->frames(), 0U);
}

TEST_F(WorkerServerTest, FailureToStartTaskIsItsAnswer) {
  serveUntilReady();
  engine_.throws = true;
  start(1);
  const auto frame = next();
  ASSERT_EQ(frame.type, FrameType::answer);
  EXPECT_EQ(decodeAnswer(frame.payload).error->localizedDescription(), "The speech engine failed: no thread");
}

TEST_F(WorkerServerTest, ClosedChannelMayBeOpenedAgain) {
  serveUntilReady();
  start(1, 1);
  engine_.task(0);
  send(encodeFrame(FrameType::closeChannel, 1));
  send(encodeFrame(FrameType::closeChannel, 99));
  start(2, 1);
  engine_.task(1);
  EXPECT_EQ(engine_.recognizerOfTask(1), 1) << "the next prepared recognizer";
}

TEST_F(WorkerServerTest, MalformedFrameEndsServer) {
  serveUntilReady();
  send(std::string(64, '\xff'));
  thread_.join();
  EXPECT_TRUE(wasMalformed_);
}

TEST_F(WorkerServerTest, FrameOfWorkerEndsServer) {
  serveUntilReady();
  start(1);
  send(encodeConsumed(1, 1));
  thread_.join();
  EXPECT_TRUE(wasMalformed_);
}

}  // namespace
}  // namespace palaver
