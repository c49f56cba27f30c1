#include "tests/support/AllocationCount.h"

#ifdef __APPLE__
#include <malloc/malloc.h>
#else
#include <malloc.h>
#endif

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace palaver {

namespace {

std::atomic<std::size_t> held{0};
std::atomic<std::size_t> large{0};
std::atomic<std::size_t> refusedSize{std::numeric_limits<std::size_t>::max()};  // least size refused, bytes

std::size_t usableSize(void* memory) {
#ifdef __APPLE__
  return malloc_size(memory);
#else
  return malloc_usable_size(memory);
#endif
}

void* allocate(std::size_t size) {
  if (size >= refusedSize) throw std::bad_alloc();
  void* const memory = std::malloc(size ? size : 1);
  if (!memory) throw std::bad_alloc();
  held += usableSize(memory);
  if (size >= largeAllocation) ++large;
  return memory;
}

void release(void* memory) {
  if (memory) held -= usableSize(memory);
  std::free(memory);
}

}  // namespace

std::size_t allocatedBytes() {
  return held;
}

std::size_t largeAllocations() {
  return large;
}

void refuseLargeAllocations(bool refuse, std::size_t leastSize) {
  refusedSize = refuse ? leastSize : std::numeric_limits<std::size_t>::max();
}

}  // namespace palaver

void* operator new(std::size_t size) {
  return palaver::allocate(size);
}
void* operator new[](std::size_t size) {
  return palaver::allocate(size);
}
void operator delete(void* memory) noexcept {
  palaver::release(memory);
}
void operator delete[](void* memory) noexcept {
  palaver::release(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  palaver::release(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  palaver::release(memory);
}
