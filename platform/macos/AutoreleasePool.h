// An autorelease pool for plain C++.
#pragma once

extern "C" {

// Of the Objective-C runtime (https://clang.llvm.org/docs/AutomaticReferenceCounting.html#runtime-support).
// Weak, for programs without one.
[[gnu::weak]] void* objc_autoreleasePoolPush();
[[gnu::weak]] void objc_autoreleasePoolPop(void* pool);
}

namespace palaver {

// What Objective-C code autoreleases on this thread while a pool lives is released at the pool's end; without
// one it would be kept for as long as the thread lives. Pools of a thread end in the reverse order of their
// making.
class AutoreleasePool {
 public:
  AutoreleasePool() : pool_(objc_autoreleasePoolPush ? objc_autoreleasePoolPush() : nullptr) {}
  ~AutoreleasePool() {
    if (objc_autoreleasePoolPop) objc_autoreleasePoolPop(pool_);
  }
  AutoreleasePool(const AutoreleasePool&) = delete;
  AutoreleasePool& operator=(const AutoreleasePool&) = delete;

 private:
  void* const pool_;
};

}  // namespace palaver
