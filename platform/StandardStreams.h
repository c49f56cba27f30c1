// Standard input, output and error of the process.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace palaver {

// Where received bytes go. Called by StandardInput on its own thread, one call at a time.
class InputHandler {
 public:
  virtual ~InputHandler() = default;

  // Room for the next read: at least one byte, valid until received() or ended() is called.
  virtual std::span<char> prepare() = 0;

  // The first `count` bytes (at least 1) of the room given by the last prepare() are now filled.
  virtual void received(std::size_t count) = 0;

  // The input has ended, or reading failed for good. Called once, last.
  virtual void ended() = 0;

 protected:
  InputHandler() = default;
  InputHandler(const InputHandler&) = default;
  InputHandler& operator=(const InputHandler&) = default;
};

class StandardInput {
 public:
  virtual ~StandardInput() = default;

  // Starts reading on a background thread and returns at once. Called at most once, from the main thread. The
  // handler must live until ended() has been called or the process ends.
  virtual void start(InputHandler& handler) = 0;

 protected:
  StandardInput() = default;
  StandardInput(const StandardInput&) = default;
  StandardInput& operator=(const StandardInput&) = default;
};

class OutputStream {
 public:
  virtual ~OutputStream() = default;

  // Writes all bytes, unbuffered; blocks while the reader is slow. A reader that has gone, or any other
  // failure, loses the bytes silently. Any thread, but callers see to it that one line is not torn by
  // another.
  virtual void write(std::string_view bytes) = 0;

 protected:
  OutputStream() = default;
  OutputStream(const OutputStream&) = default;
  OutputStream& operator=(const OutputStream&) = default;
};

}  // namespace palaver
