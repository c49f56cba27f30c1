#include "cli/writeFile.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <system_error>

namespace palaver::cli {

bool writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto count = ::write(descriptor, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      pollfd wait{descriptor, POLLOUT, 0};
      ::poll(&wait, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

void writePrivateFile(const std::string& path, std::string_view text) {
  PrivateFile(path).write(text);
}

PrivateFile::PrivateFile(const std::string& path)
    : path_(path), file_(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)) {
  if (!file_.isOpen()) fail();
}

void PrivateFile::write(std::string_view text) {
  // A device or a pipe cannot be truncated, and holds nothing.
  if (!isEmpty_ && ::ftruncate(file_.get(), 0) != 0 && errno != EINVAL) fail();
  isEmpty_ = true;
  if (!writeAll(file_.get(), text)) fail();
}

void PrivateFile::fail() const {
  throw std::runtime_error("cannot write " + path_ + ": " + std::generic_category().message(errno));
}

}  // namespace palaver::cli
