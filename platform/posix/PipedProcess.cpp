#include "platform/posix/PipedProcess.h"

#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <system_error>
#include <utility>

namespace palaver {

PipedProcess::PipedProcess(const std::vector<std::string>& command, const Inheritance& inheritance) {
  // One at a time: a child that another thread starts meanwhile would inherit a pipe that is not yet
  // close-on-exec.
  static std::mutex starting;
  const std::scoped_lock lock(starting);
  auto input = makePipe();
  auto output = makePipe();
  auto diagnostics = makePipe();
  for (const auto* const end : {&input.writeEnd, &output.readEnd, &diagnostics.readEnd})
    setNonBlocking(end->get());
  ChildOptions options{.command = command,
                       .environment = environmentWith(inheritance.environment),
                       .descriptors = {{STDIN_FILENO, input.readEnd.get()},
                                       {STDOUT_FILENO, output.writeEnd.get()},
                                       {STDERR_FILENO, diagnostics.writeEnd.get()}},
                       .leadsProcessGroup = true};
  if (inheritance.descriptor >= 0) options.descriptors[STDERR_FILENO + 1] = inheritance.descriptor;
  process_.emplace(options);
  input_ = std::move(input.writeEnd);
  output_ = std::move(output.readEnd);
  diagnostics_ = std::move(diagnostics.readEnd);
}

void PipedProcess::write(std::string_view bytes) {
  if (!input_.isOpen() || closing_) return;
  if (written_ >= queue_.size() / 2) queue_.erase(0, std::exchange(written_, 0));
  queue_.append(bytes);
}

void PipedProcess::flush() {
  while (input_.isOpen() && queuedBytes() > 0) {
    const auto count = ::write(input_.get(), queue_.data() + written_, queuedBytes());
    if (count >= 0) {
      written_ += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      return;
    } else if (errno != EINTR) {  // EPIPE: the child no longer reads
      broken_ = true;
      input_.close();
    }
  }
  queue_.clear();
  written_ = 0;
  if (closing_) input_.close();
}

void PipedProcess::closeInput() {
  closing_ = true;
  flush();
}

ReadOutcome PipedProcess::read(Descriptor& descriptor, std::string& bytes) {
  constexpr std::size_t readSize = std::size_t{64} << 10;
  bytes.clear();
  if (!descriptor.isOpen()) return ReadOutcome::end;
  bytes.resize(readSize);
  for (;;) {
    const auto count = ::read(descriptor.get(), bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    const int error = errno;
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    if (count > 0) return ReadOutcome::data;
    if (count < 0 && (error == EAGAIN || error == EWOULDBLOCK)) return ReadOutcome::nothingNow;
    descriptor.close();
    if (count < 0) throw std::system_error(error, std::generic_category(), "reading from the helper");
    return ReadOutcome::end;
  }
}

}  // namespace palaver
