// Provides an autorelease pool for plain C++.
#pragma once

extern "C" {

// Functions of the Objective-C runtime
// (https://clang.llvm.org/docs/AutomaticReferenceCounting.html#runtime-support).
void* objc_autoreleasePoolPush();
void objc_autoreleasePoolPop(void* pool);
}

namespace palaver {

// Releases at its end everything that Objective-C code autoreleased on this thread during its lifetime.
// Without a pool those objects would live as long as the thread. Pools of a thread must end in the reverse
// order of their creation.
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
