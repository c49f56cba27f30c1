// A pool for the objects that Apple's frameworks hand out. Threads of our own have none, and objects would
// leak there; on the main thread they would pile up until it next waits.
#pragma once

// Source: clang's documentation of Automatic Reference Counting, "Runtime support".
extern "C" void* objc_autoreleasePoolPush();
extern "C" void objc_autoreleasePoolPop(void* pool);

namespace palaver {

// Around each unit of work. Unlike a statement of Objective-C, it also ends when a C++ exception passes.
// Nests; begins and ends on one thread.
class AutoreleasePool {
 public:
  AutoreleasePool() : pool_(objc_autoreleasePoolPush()) {}
  ~AutoreleasePool() { objc_autoreleasePoolPop(pool_); }
  AutoreleasePool(const AutoreleasePool&) = delete;
  AutoreleasePool& operator=(const AutoreleasePool&) = delete;

 private:
  void* const pool_;
};

}  // namespace palaver
