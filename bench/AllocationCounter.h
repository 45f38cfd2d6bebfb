// Counts the allocations a process makes through operator new while counting is switched on.
// The binary that links AllocationCounter.cpp replaces the global operator new and delete; the
// count covers every thread of the process, so that what the transport's threads allocate for a
// call is counted beside what the calling thread does. Counting stays off outside the timed
// regions: when off, an allocation costs one relaxed load more than malloc.
#pragma once

#include <cstdint>

namespace allocations {

// Starts counting from zero.
void start();
// Stops counting and returns the allocations made since start().
uint64_t stop();

}  // namespace allocations
