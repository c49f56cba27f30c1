// Counts the memory that a test program allocates. AllocationCount.cpp, which must be linked, replaces the
// global operator new.
#pragma once

#include <cstddef>
#include <limits>

namespace palaver {

// Bytes allocated through operator new and not yet freed. Any thread.
std::size_t allocatedBytes();

inline constexpr std::size_t largeAllocation = std::size_t{64} << 10;  // bytes

// Allocations of at least largeAllocation bytes so far. Any thread.
std::size_t largeAllocations();

// Makes allocations of `leastSize` to `mostSize` bytes throw std::bad_alloc, or succeed again. Any thread.
void refuseLargeAllocations(bool refuse, std::size_t leastSize = largeAllocation,
                            std::size_t mostSize = std::numeric_limits<std::size_t>::max());

}  // namespace palaver
