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
// A mark and a trim around a piece of work: the trim gives back to free()
// the blocks of this thread's lists that no allocation needed since the mark,
// so that the memory a large tree held does not stay on the lists once the
// work has become small again. The decoder does both around every parse.
void markSmallObjectLists();
void trimSmallObjectLists();
// The bytes waiting on this thread's lists, for measurements.
size_t smallObjectListBytes();

} // namespace velvox::detail
