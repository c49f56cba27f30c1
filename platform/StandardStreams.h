// Reads the process's stdin and writes its stdout and stderr.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace palaver {

// Receives the bytes. Called by StandardInput on its own thread, one call at a time.
class InputHandler {
 public:
  virtual ~InputHandler() = default;

  // Returns room for the next read: at least one byte, valid until received() or ended() is called.
  virtual std::span<char> prepare() = 0;

  // Takes the first `count` bytes (at least 1) of the room returned by the last prepare().
  virtual void received(std::size_t count) = 0;

  // Called once, last: at the end of the input or after a permanent read error.
  virtual void ended() = 0;

 protected:
  InputHandler() = default;
  InputHandler(const InputHandler&) = default;
  InputHandler& operator=(const InputHandler&) = default;
};

class StandardInput {
 public:
  virtual ~StandardInput() = default;

  // Starts reading on a background thread and returns immediately. Main thread, at most one call. The handler
  // must live until ended() has been called or the process ends.
  virtual void start(InputHandler& handler) = 0;

 protected:
  StandardInput() = default;
  StandardInput(const StandardInput&) = default;
  StandardInput& operator=(const StandardInput&) = default;
};

class OutputStream {
 public:
  virtual ~OutputStream() = default;

  // Writes all bytes, unbuffered. Blocks while the reader is slow. If the reader has closed the stream or
  // writing fails otherwise, the bytes are lost silently. Any thread, but callers must serialize the writes
  // of one line.
  virtual void write(std::string_view bytes) = 0;

  // Returns whether a line of usual length (512 bytes) can be written without blocking. Any thread.
  virtual bool isWritable() const { return true; }

  // From now on gives up a write, also one that already blocks, when the reader has accepted nothing for the
  // given time (ms), and drops all bytes after it. Any thread.
  virtual void limitStalls(double /*milliseconds*/) {}

 protected:
  OutputStream() = default;
  OutputStream(const OutputStream&) = default;
  OutputStream& operator=(const OutputStream&) = default;
};

}  // namespace palaver
