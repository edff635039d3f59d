#pragma once

// Memory for small objects. Freed blocks wait in per-thread lists by size and
// are handed out again before malloc is asked: a program that decodes and
// drops many small objects (strings, numbers, collections) over and over runs
// mostly on these lists. A block may be freed on any thread. Larger blocks,
// and blocks beyond what the lists keep, go straight to malloc and free.

#include <cstddef>
#include <cstdint>

namespace velvox::detail {

void* allocateSmall(size_t size);
void deallocateSmall(void* pointer, size_t size);
// How many blocks this thread has asked for (objects made), for measurements.
uint64_t smallAllocationCount();

} // namespace velvox::detail
