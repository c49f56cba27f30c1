// Owns file descriptors.
#pragma once

#include <cstddef>
#include <utility>

namespace palaver {

// Closes a file descriptor on destruction.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      close();
      descriptor_ = std::exchange(other.descriptor_, -1);
    }
    return *this;
  }
  ~Descriptor() { close(); }

  int get() const { return descriptor_; }  // -1 when closed
  bool isOpen() const { return descriptor_ >= 0; }
  void close();

 private:
  int descriptor_ = -1;
};

// Two connected descriptors.
struct Pipe {
  Descriptor readEnd;
  Descriptor writeEnd;
};

// Creates a pipe, close-on-exec at both ends. `capacity` (bytes) is a request that the system may refuse; 0
// keeps the system's default. Throws std::system_error.
Pipe makePipe(std::size_t capacity = 0);

// Throws std::system_error.
void setCloseOnExec(int descriptor);
void setNonBlocking(int descriptor);

}  // namespace palaver
