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
// Sizes refused, bytes.
std::atomic<std::size_t> leastRefused{std::numeric_limits<std::size_t>::max()};
std::atomic<std::size_t> mostRefused{0};

std::size_t usableSize(void* memory) {
#ifdef __APPLE__
  return malloc_size(memory);
#else
  return malloc_usable_size(memory);
#endif
}

void* allocate(std::size_t size) {
  if (size >= leastRefused && size <= mostRefused) throw std::bad_alloc();
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

void refuseLargeAllocations(bool refuse, std::size_t leastSize, std::size_t mostSize) {
  leastRefused = leastSize;
  mostRefused = refuse ? mostSize : 0;
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
