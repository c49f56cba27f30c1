// How much memory a test program holds. Link AllocationCount.cpp: it replaces the global operator new.
#pragma once

#include <cstddef>

namespace palaver {

// Bytes allocated through operator new and not yet freed. Any thread.
std::size_t allocatedBytes();

// Allocations of at least 64 KiB so far. Any thread.
std::size_t largeAllocations();

}  // namespace palaver
