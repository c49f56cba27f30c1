#include "platform/posix/POSIXStreams.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <thread>

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

}  // namespace

void DescriptorInput::start(InputHandler& handler) {
  std::thread([descriptor = descriptor_, &handler] {
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

void DescriptorOutput::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(descriptor_, bytes.data(), std::min(bytes.size(), mostBytes));
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (!mayTryAgain(descriptor_, POLLOUT)) {
      return;
    }
  }
}

void prepareStandardStreams() {
  std::signal(SIGPIPE, SIG_IGN);
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor)
    if (::fcntl(descriptor, F_GETFD) < 0 && errno == EBADF) static_cast<void>(::open("/dev/null", O_RDWR));
}

}  // namespace palaver
