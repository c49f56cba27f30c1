#include "worker/WorkerServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

namespace palaver {

namespace {

// Steps of less audio than this are reported once in stepInterval at most, frames. Steps that take longer
// than the interval are all reported.
constexpr std::int64_t longStep = std::int64_t{10} * workerSampleRate;
constexpr std::chrono::seconds stepInterval{1};

// Consumed audio is reported in steps of this many frames, and when the audio has ended.
constexpr std::uint64_t framesPerReport = workerSampleRate / 2;

PlatformError engineFailed(const std::exception& error) {
  return {"SpeechWorker", 0, std::string("The speech engine failed: ") + error.what()};
}

}  // namespace

PlatformError engineCannotStart(const std::exception& error) {
  return {"SpeechWorker", 0, std::string("the speech engine cannot start: ") + error.what()};
}

namespace {

std::shared_ptr<PCMBuffer> makeBuffer(std::span<const std::byte> samples) {
  const auto frames = static_cast<std::uint32_t>(samples.size() / sizeof(std::int16_t));
  auto buffer =
      std::make_shared<PCMBuffer>(AudioFormat{CommonFormat::int16, workerSampleRate, 1, true}, frames);
  std::memcpy(buffer->int16ChannelData(), samples.data(), samples.size());
  buffer->setFrameLength(frames);
  return buffer;
}

}  // namespace

// Sends frames and wakes the server's thread. Any thread.
class WorkerServer::Sender {
 public:
  explicit Sender(Descriptor socket)
      : socket_(std::move(socket)), wakeUp_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wakeUp_.isOpen()) throw std::system_error(errno, std::generic_category(), "eventfd");
  }

  int socket() const { return socket_.get(); }
  int wakeUp() const { return wakeUp_.get(); }

  // Blocks while the helper does not read. Drops the frame once the helper has closed the socket.
  void send(std::string_view frame) {
    const std::lock_guard guard(lock_);
    while (!frame.empty()) {
      const auto sent = ::send(socket_.get(), frame.data(), frame.size(), MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0) return;
      frame.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  void wake() const {
    constexpr std::uint64_t one = 1;
    [[maybe_unused]] const auto ignored = ::write(wakeUp_.get(), &one, sizeof one);
  }

 private:
  const Descriptor socket_;
  const Descriptor wakeUp_;
  std::mutex lock_;
};

// Reports one task to the helper. Any thread. Lives as long as the engine holds the task or its audio.
class WorkerServer::TaskReport {
 public:
  TaskReport(std::uint32_t number, std::shared_ptr<Sender> sender)
      : number_(number), sender_(std::move(sender)) {}

  void answer(std::optional<RecognitionResult> result, const std::optional<PlatformError>& error) {
    if (result) moveSegments(*result);
    sender_->send(encodeAnswer(number_, result, error));
    if (!error && !(result && result->isFinal)) return;
    hasEnded_ = true;
    sender_->wake();
  }

  bool hasEnded() const { return hasEnded_; }

  // The engine has released, or the server has dropped, that many frames.
  void consumed(std::uint64_t frames) {
    const auto all = consumed_ += frames;
    auto reported = reported_.load();
    while (all >= reported + framesPerReport)
      if (reported_.compare_exchange_weak(reported, all)) {
        sender_->send(encodeConsumed(number_, all));
        break;
      }
    if (isThrottled_) sender_->wake();
  }
  std::uint64_t consumed() const { return consumed_; }

  // Whether audio waits until the engine has consumed more.
  void setThrottled(bool throttled) { isThrottled_ = throttled; }

  // Records that `frames` frames are missing after the first `engineFrames` frames that the engine gets.
  void addGap(std::uint64_t position, std::uint64_t frames) {
    const std::lock_guard guard(lock_);
    gaps_.push_back(
        {static_cast<double>(position) / workerSampleRate, static_cast<double>(frames) / workerSampleRate});
  }

 private:
  struct Gap {
    double position;  // seconds of the engine's audio
    double length;    // seconds
  };

  // Changes times in the engine's audio into times in the request's audio.
  void moveSegments(RecognitionResult& result) {
    const std::lock_guard guard(lock_);
    if (gaps_.empty()) return;
    for (auto& segment : result.segments) {
      const double timestamp = segment.timestamp;
      for (const auto& gap : gaps_)
        if (gap.position <= timestamp) segment.timestamp += gap.length;
    }
  }

  const std::uint32_t number_;
  const std::shared_ptr<Sender> sender_;
  std::atomic<bool> hasEnded_ = false;
  std::atomic<bool> isThrottled_ = false;
  std::atomic<std::uint64_t> consumed_ = 0;  // frames
  std::atomic<std::uint64_t> reported_ = 0;  // frames
  std::mutex lock_;
  std::vector<Gap> gaps_;
};

struct WorkerServer::WaitingBuffer {
  std::uint64_t position;  // frames from the request's first sample
  std::shared_ptr<PCMBuffer> buffer;
};

struct WorkerServer::Task {
  std::shared_ptr<RecognitionRequest> request;
  std::unique_ptr<RecognitionTask> task;
  std::shared_ptr<TaskReport> report;
  std::deque<WaitingBuffer> waiting;
  std::uint64_t waitingFrames = 0;
  std::uint64_t fed = 0;           // frames that the engine got
  std::uint64_t dropped = 0;       // frames that it will never get
  std::uint64_t nextPosition = 0;  // position that follows the newest frame that the engine got
  bool audioEnded = false;
};

WorkerServer::WorkerServer(SpeechRecognition& engine, std::string locale, Descriptor socket)
    : engine_(engine), locale_(std::move(locale)), sender_(std::make_shared<Sender>(std::move(socket))) {}

WorkerServer::~WorkerServer() = default;

void WorkerServer::run() {
  if (auto* const reporter = dynamic_cast<StepReporter*>(&engine_)) reportSteps(*reporter);
  prepareChannels();
  FrameDecoder decoder;
  for (;;) {
    std::array<pollfd, 2> waiting{pollfd{sender_->socket(), POLLIN, 0}, pollfd{sender_->wakeUp(), POLLIN, 0}};
    if (::poll(waiting.data(), waiting.size(), -1) < 0) {
      if (errno == EINTR) continue;
      throw std::system_error(errno, std::generic_category(), "poll");  // no descriptor is allowed, no memory
    }
    if (waiting[1].revents != 0) {
      std::uint64_t count = 0;
      [[maybe_unused]] const auto ignored = ::read(sender_->wakeUp(), &count, sizeof count);
      eraseEnded();
      feedAll();
    }
    if (waiting[0].revents == 0) continue;
    const auto room = decoder.prepare();
    const auto count = ::recv(sender_->socket(), room.data(), room.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) continue;
    if (count <= 0) return;
    decoder.received(static_cast<std::size_t>(count));
    while (const auto frame = decoder.next()) handle(*frame);
  }
}

void WorkerServer::reportSteps(StepReporter& reporter) {
  using Clock = std::chrono::steady_clock;
  reporter.reportSteps([sender = sender_, sentAt = std::optional<Clock::time_point>(),
                        wasLong = false](std::int64_t samples) mutable {
    const auto now = Clock::now();
    const bool isLong = samples >= longStep;
    // The step after a long one is reported too, because it ends the helper's patience with the long one.
    if (!isLong && !wasLong && sentAt && now - *sentAt < stepInterval) return;
    wasLong = isLong;
    sentAt = now;
    sender->send(encodeDecoding(static_cast<std::uint64_t>(samples)));
  });
}

void WorkerServer::prepareChannels() {
  for (std::size_t i = 0; i < preparedChannels; ++i) {
    const bool isFirst = i == 0;
    try {
      auto recognizer = engine_.makeRecognizer(locale_);
      if (!recognizer) throw PlatformError("SpeechWorker", 0, "it does not serve the locale " + locale_);
      const auto request = recognizer->makeRequest({});
      const auto task = recognizer->recognitionTask(
          request, [sender = sender_, isFirst](const auto& result, const auto& error) {
            constexpr long noSpeech = 1110;
            if (!isFirst || (!error && !result->isFinal)) return;
            sender->send(error && error->code() != noSpeech ? encodeFailure(*error)
                                                            : encodeFrame(FrameType::ready));
          });
      request->endAudio();
      prepared_.push_back(std::move(recognizer));
    } catch (const PlatformError& error) {
      if (isFirst) sender_->send(encodeFailure(error));
      return;
    } catch (const std::exception& error) {  // no memory, no thread
      if (isFirst) sender_->send(encodeFailure(engineCannotStart(error)));
      return;
    }
  }
}

void WorkerServer::handle(const Frame& frame) {
  if (frame.type == FrameType::startTask) return startTask(frame.id, decodeStart(frame.payload));
  if (frame.type == FrameType::closeChannel) {
    channels_.erase(frame.id);
    return;
  }
  const auto found = tasks_.find(frame.id);
  if (found == tasks_.end()) return;  // has ended, which the helper did not know yet
  Task& task = found->second;
  switch (frame.type) {
    case FrameType::audio:
      return takeAudio(task, decodeAudio(frame.payload));
    case FrameType::endAudio:
      task.audioEnded = true;
      return feed(task);
    case FrameType::cancelTask:
      task.task->cancel();
      tasks_.erase(found);
      return;
    default:
      throw MalformedFrame();  // only the worker sends these
  }
}

SpeechRecognizer& WorkerServer::recognizerOf(std::uint32_t channel) {
  auto& recognizer = channels_[channel];
  if (!recognizer && !prepared_.empty()) {
    recognizer = std::move(prepared_.front());
    prepared_.pop_front();
  }
  if (!recognizer) recognizer = engine_.makeRecognizer(locale_);
  if (!recognizer)
    throw PlatformError("SpeechWorker", 0, "The speech engine does not serve the locale " + locale_);
  return *recognizer;
}

void WorkerServer::startTask(std::uint32_t number, StartFrame frame) {
  const auto report = std::make_shared<TaskReport>(number, sender_);
  try {
    auto& recognizer = recognizerOf(frame.channel);
    auto request = recognizer.makeRequest(std::move(frame.options));
    auto task = recognizer.recognitionTask(
        request, [report](auto result, auto error) { report->answer(std::move(result), error); });
    tasks_[number] = {
        .request = std::move(request), .task = std::move(task), .report = report, .waiting = {}};
  } catch (const PlatformError& error) {
    report->answer(std::nullopt, error);
  } catch (const std::exception& error) {  // no memory, no thread
    report->answer(std::nullopt, engineFailed(error));
  }
}

void WorkerServer::takeAudio(Task& task, const AudioFrame& frame) {
  if (frame.samples.empty()) return;
  auto buffer = makeBuffer(frame.samples);
  task.waitingFrames += buffer->frameLength();
  task.waiting.push_back({frame.position, std::move(buffer)});
  feed(task);
  while (task.waitingFrames > maxWaitingFrames) {
    const auto frames = task.waiting.front().buffer->frameLength();
    task.waitingFrames -= frames;
    task.dropped += frames;
    task.waiting.pop_front();
    task.report->consumed(frames);
  }
}

void WorkerServer::feed(Task& task) {
  task.report->setThrottled(true);  // before the engine's progress is read, so that no wake-up is missed
  while (!task.waiting.empty() && task.fed + task.dropped < task.report->consumed() + engineFrames) {
    const auto [position, buffer] = std::move(task.waiting.front());
    task.waiting.pop_front();
    const std::uint64_t frames = buffer->frameLength();
    task.waitingFrames -= frames;
    if (position > task.nextPosition) task.report->addGap(task.fed, position - task.nextPosition);
    task.nextPosition = position + frames;
    task.fed += frames;
    // The engine's last reference reports that it has taken the buffer.
    task.request->append(
        {buffer.get(), [buffer = buffer, report = task.report, frames](const PCMBuffer*) mutable {
           buffer.reset();
           report->consumed(frames);
         }});
  }
  task.report->setThrottled(!task.waiting.empty());
  if (task.waiting.empty() && task.audioEnded) task.request->endAudio();
}

void WorkerServer::feedAll() {
  for (auto& [number, task] : tasks_)
    if (!task.waiting.empty()) feed(task);
}

void WorkerServer::eraseEnded() {
  std::erase_if(tasks_, [](const auto& entry) { return entry.second.report->hasEnded(); });
}

}  // namespace palaver
