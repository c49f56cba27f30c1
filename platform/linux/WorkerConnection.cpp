#include "platform/linux/WorkerConnection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <map>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/linux/FrameOutbox.h"
#include "platform/linux/WorkerErrors.h"
#include "platform/linux/WorkerFrames.h"
#include "platform/linux/WorkerWatchdog.h"
#include "platform/posix/ChildProcess.h"
#include "platform/posix/Descriptor.h"

namespace palaver {

namespace {

// The socket's number in the worker.
constexpr int workerSocket = 3;
// Time that a worker that has closed its socket gets to end, so that its own status is reported. ms
constexpr int endingTime = 1'000;

constexpr const char* restartHint = ". The next words start it again";

std::vector<int> allSignals() {
  std::vector<int> signals;
  for (int number = 1; number < NSIG; ++number)
    if (number != SIGKILL && number != SIGSTOP) signals.push_back(number);
  return signals;
}

struct SocketPair {
  Descriptor own;
  Descriptor other;
};

SocketPair makeSocketPair() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) < 0)
    throw std::system_error(errno, std::generic_category());
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

Descriptor checked(int descriptor) {
  if (descriptor < 0) throw std::system_error(errno, std::generic_category());
  return Descriptor(descriptor);
}

ChildOptions childOptions(const std::string& program, const WorkerModel& model, int null, int socket) {
  return {.command = {program, workerProtocolVersion, model.engine, model.folder.string(), model.locale},
          .descriptors = {{STDIN_FILENO, null},
                          {STDOUT_FILENO, null},
                          {STDERR_FILENO, null},
                          {workerSocket, socket}},
          .defaultSignals = allSignals(),
          .leadsProcessGroup = true,
          .closesFrom = workerSocket + 1};
}

std::string secondsText(double milliseconds) {
  return std::to_string(std::lround(milliseconds / 1000)) + " s";
}

}  // namespace

// Shared by the connection and its thread.
class WorkerConnection::Link {
 public:
  Link(const WorkerModel& model, const WorkerSettings& settings)
      : model_(model), settings_(settings), watchdog_(settings.limits, settings.now()) {
    const auto program = settings_.program();
    if (::access(program.c_str(), X_OK) != 0)
      throw workerError(WorkerErrorCode::missing,
                        "The speech engine is not installed: there is no program " + program.string());
    // Otherwise the system would collect the worker itself, and its number could become another process's.
    struct sigaction action {};
    if (::sigaction(SIGCHLD, nullptr, &action) == 0 && action.sa_handler == SIG_IGN)
      ::signal(SIGCHLD, SIG_DFL);
    auto sockets = makeSocketPair();
    const auto null = checked(::open("/dev/null", O_RDWR | O_CLOEXEC));
    wakeUp_ = checked(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    process_.emplace(childOptions(program.string(), model_, null.get(), sockets.other.get()));
    processID_ = process_->id();
    socket_ = std::move(sockets.own);
    processEnd_ = Descriptor(static_cast<int>(::syscall(SYS_pidfd_open, process_->id(), 0)));
  }

  bool isOpen() const {
    const std::lock_guard guard(lock_);
    return isOpen_;
  }
  std::optional<double> failedAt() const {
    const std::lock_guard guard(lock_);
    return failedAt_;
  }
  pid_t processID() const { return processID_; }

  std::optional<std::uint32_t> openChannel() {
    const std::lock_guard guard(lock_);
    if (!isOpen_) return std::nullopt;
    watchdog_.channelOpened(++newestChannel_);
    wake();  // it begins to check for hangs
    return newestChannel_;
  }

  void closeChannel(std::uint32_t channel) {
    const std::lock_guard guard(lock_);
    if (!isOpen_) return;
    watchdog_.channelClosed(channel);
    outbox_.push(encodeFrame(FrameType::closeChannel, channel));
    flush();
  }

  std::optional<std::uint32_t> startTask(std::uint32_t channel, const RecognitionOptions& options,
                                         ResultHandler handler) {
    auto task = std::make_shared<Task>();
    task->handler = std::move(handler);
    const std::lock_guard guard(lock_);
    if (!isOpen_) return std::nullopt;
    const auto number = ++newestTask_;
    outbox_.push(encodeStart(number, channel, options));
    watchdog_.taskStarted(channel, number);
    tasks_.emplace(number, std::move(task));
    flush();
    return number;
  }

  std::uint32_t startFailingTask(ResultHandler handler) {
    auto task = std::make_shared<Task>();
    task->handler = std::move(handler);
    const std::lock_guard guard(lock_);
    if (end_) throw *end_;
    tasks_.emplace(++newestTask_, std::move(task));
    return newestTask_;
  }

  void append(std::uint32_t number, const std::shared_ptr<const PCMBuffer>& buffer) {
    const std::lock_guard guard(lock_);
    const auto task = tasks_.find(number);
    if (task == tasks_.end()) return;
    const std::uint32_t length = buffer->frameLength();
    for (std::uint32_t first = 0; first < length;) {
      const auto frames = std::min(maxSamplesOfFrame, length - first);
      outbox_.pushAudio(number, task->second->position, buffer, first, frames);
      task->second->position += frames;
      first += frames;
    }
    watchdog_.audioSent(number, length);
    flush();
  }

  void endAudio(std::uint32_t number) {
    const std::lock_guard guard(lock_);
    if (!tasks_.contains(number)) return;
    watchdog_.audioEnded(number);
    outbox_.push(encodeFrame(FrameType::endAudio, number));
    flush();
  }

  ResultHandler cancel(std::uint32_t number) {
    const std::lock_guard guard(lock_);
    const auto found = tasks_.find(number);
    if (found == tasks_.end()) return {};
    const auto task = std::move(found->second);
    task->isCancelled = true;
    tasks_.erase(found);
    watchdog_.taskEnded(number);
    outbox_.dropAudio(number);
    outbox_.push(encodeFrame(FrameType::cancelTask, number));
    flush();
    return task->handler;  // a copy: the connection's thread may be calling it
  }

  // Makes run() return without calling a handler.
  void stop() {
    const std::lock_guard guard(lock_);
    isStopping_ = true;
    isOpen_ = false;
    wake();
  }

  // Serves the connection to its end. The connection's thread.
  void run() {
    std::optional<PlatformError> failure;
    try {
      failure = serve();
    } catch (const MalformedFrame&) {
      failure = workerError(
          WorkerErrorCode::malformedAnswer,
          std::string("The speech engine sent an answer that cannot be read and was ended") + restartHint);
    } catch (const std::exception& error) {  // no memory
      failure = workerError(WorkerErrorCode::ended,
                            std::string("The speech engine was ended: ") + error.what() + restartHint);
    }
    end(failure);
  }

 private:
  struct Task {
    ResultHandler handler;
    std::uint64_t position = 0;  // frames appended
    std::atomic<bool> isCancelled = false;
  };

  // Returns the reason of the end. None when it was stopped or idle.
  std::optional<PlatformError> serve() {
    FrameDecoder decoder;
    for (;;) {
      std::array<pollfd, 2> waiting{pollfd{socket_.get(), POLLIN, 0}, pollfd{wakeUp_.get(), POLLIN, 0}};
      int timeout = 0;
      {
        const std::lock_guard guard(lock_);
        if (isStopping_) return std::nullopt;
        using enum WorkerWatchdog::Verdict;
        switch (watchdog_.check(settings_.now())) {
          case good:
            break;
          case idle:
            isOpen_ = false;  // under the same lock as the check, so that no channel can open meanwhile
            return std::nullopt;
          case loadingHangs:
            return modelNotLoaded("it was not loaded within " + secondsText(settings_.limits.loading));
          case answeringHangs:
            return workerError(WorkerErrorCode::unresponsive, "The speech engine did not answer for " +
                                                                  secondsText(watchdog_.answeringLimit()) +
                                                                  " and was ended" + restartHint);
        }
        if (!outbox_.isEmpty()) waiting[0].events |= POLLOUT;
        timeout = static_cast<int>(
            std::ceil(watchdog_.isWatching() ? settings_.limits.check : settings_.limits.idle));
      }
      if (::poll(waiting.data(), waiting.size(), timeout) < 0 && errno != EINTR)
        throw std::system_error(errno, std::generic_category());
      if (waiting[1].revents != 0) {
        std::uint64_t count = 0;
        [[maybe_unused]] const auto ignored = ::read(wakeUp_.get(), &count, sizeof count);
      }
      if ((waiting[0].revents & POLLOUT) != 0) {
        const std::lock_guard guard(lock_);
        flush();
      }
      if ((waiting[0].revents & ~POLLOUT) != 0 && !receive(decoder)) return ended();
    }
  }

  // Reads what has arrived. Returns false at the end.
  bool receive(FrameDecoder& decoder) {
    const auto room = decoder.prepare();
    const auto count = ::recv(socket_.get(), room.data(), room.size(), MSG_DONTWAIT);
    if (count == 0) return false;
    if (count < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    decoder.received(static_cast<std::size_t>(count));
    while (const auto frame = decoder.next()) {
      handle(*frame);
      if (loadError_) return false;
    }
    return true;
  }

  void handle(const Frame& frame) {
    switch (frame.type) {
      case FrameType::ready: {
        const std::lock_guard guard(lock_);
        isLoaded_ = true;
        return watchdog_.loaded();
      }
      case FrameType::failed:
        loadError_ = decodeFailure(frame.payload);
        return;
      case FrameType::consumed: {
        const auto frames = decodeConsumed(frame.payload);
        const std::lock_guard guard(lock_);
        checkTask(frame.id);
        return watchdog_.audioConsumed(frame.id, frames);
      }
      case FrameType::decoding: {
        const auto frames = decodeDecoding(frame.payload);
        const std::lock_guard guard(lock_);
        return watchdog_.decodingBegan(frames);
      }
      case FrameType::answer:
        return answer(frame.id, decodeAnswer(frame.payload));
      default:
        throw MalformedFrame();  // only the helper sends these
    }
  }

  void answer(std::uint32_t number, AnswerFrame frame) {
    std::shared_ptr<Task> task;
    {
      const std::lock_guard guard(lock_);
      checkTask(number);
      const auto found = tasks_.find(number);
      if (found == tasks_.end()) return;  // cancelled meanwhile
      task = found->second;
      if (frame.endsTask()) {
        tasks_.erase(found);
        watchdog_.taskEnded(number);
      } else {
        watchdog_.answered(number);
      }
    }
    call(*task, [&frame](const ResultHandler& handler) {
      handler(std::move(frame.result), std::move(frame.error));
    });
  }

  void checkTask(std::uint32_t number) const {
    if (number == 0 || number > newestTask_) throw MalformedFrame();
  }

  template <typename Call>
  void call(const Task& task, Call callHandler) {
    if (task.isCancelled || !task.handler || isStopping_) return;
    try {
      callHandler(task.handler);
    } catch (...) {
      // There is no caller to report to. The thread and the other tasks continue.
    }
  }

  PlatformError modelNotLoaded(const std::string& reason) const {
    return workerError(WorkerErrorCode::modelNotLoaded,
                       "The speech model in " + model_.folder.string() + " could not be loaded: " + reason);
  }

  // Describes why the process has closed its socket. Waits for the process.
  PlatformError ended() {
    if (loadError_) return modelNotLoaded(loadError_->localizedDescription());
    {
      const std::lock_guard guard(lock_);
      isOpen_ = false;
      failedAt_ = settings_.now();  // already counts for a worker that is started meanwhile
    }
    pollfd waiting{processEnd_.get(), POLLIN, 0};
    if (processEnd_.isOpen()) ::poll(&waiting, 1, endingTime);
    const auto status = process_->exitStatus();
    const std::string how = "the speech engine ended unexpectedly (" +
                            (status ? status->description() : "it closed its socket") + ")";
    if (!isLoaded_) return modelNotLoaded(how);
    return workerError(WorkerErrorCode::ended, "T" + how.substr(1) + restartHint);
  }

  // Kills the process and reports the failure to all tasks.
  void end(const std::optional<PlatformError>& failure) {
    std::map<std::uint32_t, std::shared_ptr<Task>> tasks;
    {
      const std::lock_guard guard(lock_);
      isOpen_ = false;
      if (failure && !failedAt_) failedAt_ = settings_.now();
      end_ = failure ? *failure
                     : workerError(WorkerErrorCode::ended, "The speech engine was not needed and ended");
      std::swap(tasks, tasks_);
      outbox_ = {};
    }
    process_->signal(SIGKILL);
    if (failure)
      for (const auto& [number, task] : tasks)
        call(*task, [&failure](const ResultHandler& handler) { handler(std::nullopt, failure); });
    process_.reset();  // waits until the process has ended
    const std::lock_guard guard(lock_);
    socket_.close();
  }

  // Writes what the socket accepts, and leaves the rest to the connection's thread. Call with the lock held.
  void flush() {
    if (!isOpen_) return;
    if (!outbox_.flush(socket_.get())) outbox_ = {};  // the thread sees the end of the socket, too
    if (!outbox_.isEmpty() && !threadWrites_) wake();
    threadWrites_ = !outbox_.isEmpty();
  }

  void wake() {
    constexpr std::uint64_t one = 1;
    [[maybe_unused]] const auto ignored = ::write(wakeUp_.get(), &one, sizeof one);
  }

  const WorkerModel model_;
  const WorkerSettings settings_;
  std::optional<ChildProcess> process_;
  pid_t processID_ = -1;
  Descriptor
      processEnd_;  // becomes readable when the process ends; closed where the system has no such thing
  Descriptor socket_;
  Descriptor wakeUp_;

  std::atomic<bool> isStopping_ = false;

  mutable std::mutex lock_;
  // The members below are guarded by the lock.
  bool isOpen_ = true;
  std::optional<double> failedAt_;
  std::optional<PlatformError> end_;  // its reason, once running tasks have been taken to be told
  WorkerWatchdog watchdog_;
  FrameOutbox outbox_;
  bool threadWrites_ = false;  // the thread waits until the socket accepts more
  std::map<std::uint32_t, std::shared_ptr<Task>> tasks_;
  std::uint32_t newestTask_ = 0;
  std::uint32_t newestChannel_ = 0;

  // The members below belong to the connection's thread.
  bool isLoaded_ = false;
  std::optional<PlatformError> loadError_;
};

WorkerConnection::WorkerConnection(const WorkerModel& model, const WorkerSettings& settings) {
  try {
    link_ = std::make_shared<Link>(model, settings);
    thread_ = std::thread([link = link_] { link->run(); });
  } catch (const std::system_error& error) {
    throw workerError(WorkerErrorCode::notStarted,
                      "The speech engine could not be started: " + error.code().message());
  }
}

WorkerConnection::~WorkerConnection() {
  link_->stop();
  // A handler may own the last reference to a recognizer, and thereby to this connection.
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

bool WorkerConnection::isOpen() const {
  return link_->isOpen();
}

std::optional<double> WorkerConnection::failedAt() const {
  return link_->failedAt();
}

std::optional<std::uint32_t> WorkerConnection::openChannel() {
  return link_->openChannel();
}

void WorkerConnection::closeChannel(std::uint32_t channel) {
  link_->closeChannel(channel);
}

std::optional<std::uint32_t> WorkerConnection::startTask(std::uint32_t channel,
                                                         const RecognitionOptions& options,
                                                         ResultHandler handler) {
  return link_->startTask(channel, options, std::move(handler));
}

std::uint32_t WorkerConnection::startFailingTask(ResultHandler handler) {
  return link_->startFailingTask(std::move(handler));
}

void WorkerConnection::append(std::uint32_t task, const std::shared_ptr<const PCMBuffer>& buffer) {
  link_->append(task, buffer);
}

void WorkerConnection::endAudio(std::uint32_t task) {
  link_->endAudio(task);
}

ResultHandler WorkerConnection::cancel(std::uint32_t task) {
  return link_->cancel(task);
}

pid_t WorkerConnection::processID() const {
  return link_->processID();
}

}  // namespace palaver
