#include "platform/linux/WorkerRecognizer.h"

#include <deque>
#include <optional>
#include <utility>

#include "platform/MainQueue.h"
#include "platform/linux/FrameOutbox.h"
#include "platform/linux/SpeechWorker.h"
#include "platform/linux/WorkerErrors.h"

namespace palaver {

namespace {

bool isOfWorkerFormat(const PCMBuffer& buffer) {
  return buffer.int16ChannelData() && buffer.format().sampleRate == workerSampleRate &&
         buffer.format().channelCount == 1;
}

}  // namespace

// A task as its request and its handle see it. Main thread.
struct WorkerRecognizer::Start {
  std::shared_ptr<WorkerConnection> connection;  // null when the task could not be started
  std::uint32_t number = 0;
  std::shared_ptr<bool> isCancelled = std::make_shared<bool>(false);
};

// Represents a channel on the main thread. Shared by the recognizer, its requests and its tasks.
class WorkerRecognizer::Channel {
 public:
  Channel(std::shared_ptr<SpeechWorker> worker, MainQueue& mainQueue)
      : worker_(std::move(worker)), mainQueue_(mainQueue) {}
  ~Channel() { close(); }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  std::shared_ptr<Start> start(const RecognitionOptions& options, ResultHandler handler) {
    auto start = std::make_shared<Start>();
    try {
      // A connection may end between two calls. One that has just been started does so only when it fails.
      for (int attempt = 0; attempt < 2 && !start->connection; ++attempt) {
        open();
        if (!number_) continue;
        if (const auto number = connection_->startTask(*number_, options, handler)) {
          start->connection = connection_;
          start->number = *number;
        }
      }
      if (!start->connection) {
        start->number = connection_->startFailingTask(handler);
        start->connection = connection_;
      }
    } catch (const PlatformError& error) {
      report(*start, std::move(handler), error);
    }
    return start;
  }

  // Ends a running task with an error.
  void fail(Start& start, const PlatformError& error) {
    if (const auto connection = std::exchange(start.connection, nullptr))
      report(start, connection->cancel(start.number), error);
  }

 private:
  // Calls the handler later on the main thread.
  void report(const Start& start, ResultHandler handler, const PlatformError& error) {
    if (!handler) return;
    mainQueue_.async([handler = std::move(handler), error, isCancelled = start.isCancelled,
                      worker = std::weak_ptr(worker_)] {
      if (!*isCancelled && !worker.expired()) handler(std::nullopt, error);
    });
  }

  // Opens the channel in the worker that runs now.
  void open() {
    auto connection = worker_->connection();
    if (number_ && connection == connection_) return;
    close();
    connection_ = std::move(connection);
    number_ = connection_->openChannel();
  }

  void close() {
    if (number_) connection_->closeChannel(*number_);
    number_.reset();
    connection_.reset();
  }

  const std::shared_ptr<SpeechWorker> worker_;
  MainQueue& mainQueue_;
  std::shared_ptr<WorkerConnection> connection_;
  std::optional<std::uint32_t> number_;  // in connection_
};

class WorkerRecognizer::Request final : public RecognitionRequest {
 public:
  Request(std::shared_ptr<Channel> channel, RecognitionOptions options)
      : channel_(std::move(channel)), options_(std::move(options)) {}
  ~Request() override { Request::endAudio(); }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  void append(std::shared_ptr<const PCMBuffer> buffer) override {
    if (isEnded_ || !buffer || buffer->frameLength() == 0) return;
    if (start_) return send(buffer);
    waitingFrames_ += buffer->frameLength();
    waiting_.push_back(std::move(buffer));
    while (waitingFrames_ > FrameOutbox::maxWaitingFrames && waiting_.size() > 1) {
      waitingFrames_ -= waiting_.front()->frameLength();
      waiting_.pop_front();
    }
  }

  void endAudio() override {
    if (std::exchange(isEnded_, true)) return;
    if (start_ && start_->connection) start_->connection->endAudio(start_->number);
  }

  std::shared_ptr<Start> start(ResultHandler handler) {
    start_ = channel_->start(options_, std::move(handler));
    for (const auto& buffer : std::exchange(waiting_, {})) send(buffer);
    if (isEnded_ && start_->connection) start_->connection->endAudio(start_->number);
    return start_;
  }

 private:
  void send(const std::shared_ptr<const PCMBuffer>& buffer) {
    if (!start_->connection) return;
    if (isOfWorkerFormat(*buffer)) return start_->connection->append(start_->number, buffer);
    channel_->fail(*start_, workerError(WorkerErrorCode::unsupportedAudio,
                                        "The speech engine takes mono 16-bit audio at 16 kHz only"));
  }

  const std::shared_ptr<Channel> channel_;
  const RecognitionOptions options_;
  std::deque<std::shared_ptr<const PCMBuffer>> waiting_;  // until the task starts
  std::uint64_t waitingFrames_ = 0;
  std::shared_ptr<Start> start_;  // null until the task starts
  bool isEnded_ = false;
};

class WorkerRecognizer::Task final : public RecognitionTask {
 public:
  Task(std::shared_ptr<Channel> channel, std::shared_ptr<Start> start)
      : channel_(std::move(channel)), start_(std::move(start)) {}

  void cancel() override {
    *start_->isCancelled = true;
    if (start_->connection) start_->connection->cancel(start_->number);
  }

 private:
  const std::shared_ptr<Channel> channel_;
  const std::shared_ptr<Start> start_;
};

WorkerRecognizer::WorkerRecognizer(std::shared_ptr<SpeechWorker> worker, MainQueue& mainQueue,
                                   std::function<bool()> isInstalled)
    : channel_(std::make_shared<Channel>(std::move(worker), mainQueue)),
      isInstalled_(std::move(isInstalled)) {}

WorkerRecognizer::~WorkerRecognizer() = default;

std::shared_ptr<RecognitionRequest> WorkerRecognizer::makeRequest(RecognitionOptions options) {
  return std::make_shared<Request>(channel_, std::move(options));
}

std::unique_ptr<RecognitionTask> WorkerRecognizer::recognitionTask(
    const std::shared_ptr<RecognitionRequest>& request, ResultHandler handler) {
  return std::make_unique<Task>(channel_, static_cast<Request&>(*request).start(std::move(handler)));
}

}  // namespace palaver
