// Counts the memory that a test program allocates. AllocationCount.cpp, which must be linked, replaces the
// global operator new.
#pragma once

#include <cstddef>

namespace palaver {

// Bytes allocated through operator new and not yet freed. Any thread.
std::size_t allocatedBytes();

// Allocations of at least 64 KiB so far. Any thread.
std::size_t largeAllocations();

// Makes allocations of at least 64 KiB throw std::bad_alloc, or succeed again. Any thread.
void refuseLargeAllocations(bool refuse);

}  // namespace palaver
