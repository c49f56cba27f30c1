// Standard streams on file descriptors.
#pragma once

#include "platform/StandardStreams.h"

namespace palaver {

// Reads a descriptor on a thread of its own, in reads as large as the handler's room. Serves blocking and
// non-blocking descriptors, pipes and sockets.
class DescriptorInput final : public StandardInput {
 public:
  explicit DescriptorInput(int descriptor) : descriptor_(descriptor) {}

  void start(InputHandler& handler) override;

 private:
  int descriptor_;
};

// Writes to a descriptor, blocking or not, through interruptions and short writes. Any thread. SIGPIPE must
// be ignored.
class DescriptorOutput final : public OutputStream {
 public:
  explicit DescriptorOutput(int descriptor) : descriptor_(descriptor) {}

  void write(std::string_view bytes) override;

 private:
  int descriptor_;
};

// Prepares the process for its streams: writing to a reader that has gone is an error, not a signal; and each
// of the three standard descriptors is open, so that no file opened later takes its place. Main thread,
// before any other thread.
void prepareStandardStreams();

}  // namespace palaver
