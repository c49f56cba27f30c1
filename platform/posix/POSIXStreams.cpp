#include "platform/posix/POSIXStreams.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <thread>

#include "platform/posix/Descriptor.h"

namespace palaver {

namespace {

// Limit of one call, bytes. macOS rejects more than INT_MAX bytes (read(2), write(2)). Linux shortens
// such calls itself.
constexpr std::size_t mostBytes = std::size_t{1} << 30;

// Returns whether a failed call may be retried. Waits until the descriptor is ready if it was not.
bool mayTryAgain(int descriptor, short events) {
  if (errno == EINTR) return true;
  if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
  pollfd waiting{.fd = descriptor, .events = events, .revents = 0};
  return ::poll(&waiting, 1, -1) >= 0 || errno == EINTR;
}

bool isOpenForWriting(int descriptor) {
  const int flags = ::fcntl(descriptor, F_GETFL);
  return flags >= 0 && (flags & O_ACCMODE) != O_RDONLY;
}

// Opens the same pipe again, as a non-blocking descriptor. Returns none for anything but a pipe of Linux.
// Such a pipe is ready only while a whole page is free, but accepts bytes as long as they fit into its last
// page; only a non-blocking write can find out. The original descriptor keeps its flags, as other processes
// may share them.
Descriptor reopenNonBlocking([[maybe_unused]] int descriptor) {
#ifdef __linux__
  struct stat status {};
  if (::fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode)) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", descriptor);
    return Descriptor(::open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  }
#endif
  return {};
}

}  // namespace

void DescriptorInput::start(InputHandler& handler) {
  std::thread([descriptor = descriptor_, prepareThread = prepareThread_, &handler] {
    prepareThread();
    for (;;) {
      const auto room = handler.prepare();
      const ssize_t count = ::read(descriptor, room.data(), std::min(room.size(), mostBytes));
      if (count > 0) {
        handler.received(static_cast<std::size_t>(count));
      } else if (count == 0 || !mayTryAgain(descriptor, POLLIN)) {
        return handler.ended();
      }
    }
  }).detach();  // runs until the input or the process ends
}

// A blocking descriptor blocks in write() once it is full, where no limit could end the wait. So each piece
// waits for room first, and is small enough to be accepted whole then (write(2) for PIPE_BUF).
void DescriptorOutput::write(std::string_view bytes) {
  Descriptor nonBlocking;  // used once the pipe is nearly full
  while (!bytes.empty() && !isGivenUp_) {
    const auto piece = bytes.substr(0, PIPE_BUF);
    ssize_t count = -1;
    if (isReady(0)) {
      count = ::write(descriptor_, piece.data(), piece.size());
    } else {
      if (!isOpenForWriting(descriptor_)) return;
      if (!nonBlocking.isOpen()) nonBlocking = reopenNonBlocking(descriptor_);
      errno = EAGAIN;
      if (nonBlocking.isOpen()) count = ::write(nonBlocking.get(), piece.data(), piece.size());
    }
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (!waitUntilReady()) isGivenUp_ = true;
    } else if (errno != EINTR) {
      return;
    }
  }
}

bool DescriptorOutput::isReady(int milliseconds) const {
  pollfd waiting{.fd = descriptor_, .events = POLLOUT, .revents = 0};
  const int ready = ::poll(&waiting, 1, milliseconds);
  return ready > 0 || (ready < 0 && errno != EINTR);  // write() reports any error
}

bool DescriptorOutput::isWritable() const {
  return !isGivenUp_ && isReady(0);
}

void DescriptorOutput::limitStalls(double milliseconds) {
  limitedAt_ = SteadyClock::now().time_since_epoch().count();
  stallLimit_ = milliseconds;
}

// Returns false when a limit is set and the descriptor accepted nothing for that long.
bool DescriptorOutput::waitUntilReady() const {
  constexpr int limitCheckInterval = 100;  // ms; a limit may be set while this thread waits
  const auto start = SteadyClock::now();
  for (;;) {
    if (isReady(limitCheckInterval)) return true;
    if (hasStalledSince(start)) return false;
  }
}

bool DescriptorOutput::hasStalledSince(SteadyClock::time_point start) const {
  const double limit = stallLimit_;
  if (limit < 0) return false;
  const SteadyClock::time_point limitedAt{SteadyClock::duration(limitedAt_.load())};
  return std::chrono::duration<double, std::milli>(SteadyClock::now() - std::max(start, limitedAt)).count() >=
         limit;
}

void prepareStandardStreams() {
  std::signal(SIGPIPE, SIG_IGN);
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor)
    if (::fcntl(descriptor, F_GETFD) < 0 && errno == EBADF) static_cast<void>(::open("/dev/null", O_RDWR));
}

}  // namespace palaver
