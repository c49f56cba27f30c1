#include "platform/posix/Descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace palaver {

namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

void Descriptor::close() {
  if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
}

Pipe makePipe([[maybe_unused]] std::size_t capacity) {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) < 0) fail("pipe");
  Pipe pipe{Descriptor(ends[0]), Descriptor(ends[1])};
  for (const int end : ends) setCloseOnExec(end);
#ifdef F_SETPIPE_SZ
  if (capacity > 0) ::fcntl(ends[1], F_SETPIPE_SZ, static_cast<int>(capacity));
#endif
  return pipe;
}

void setCloseOnExec(int descriptor) {
  if (::fcntl(descriptor, F_SETFD, FD_CLOEXEC) < 0) fail("fcntl");
}

void setNonBlocking(int descriptor) {
  const int flags = ::fcntl(descriptor, F_GETFL);
  if (flags < 0 || ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) < 0) fail("fcntl");
}

}  // namespace palaver
