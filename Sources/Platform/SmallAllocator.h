#pragma once

// Memory for small objects (up to 512 bytes). Blocks of one size come from
// 64 KB slabs that a thread owns; a slab whose blocks have all come back
// starts again from its first block. A program that decodes and drops large
// trees over and over thus lays every new tree out in the order it is made,
// as fresh memory would, instead of over blocks that earlier releases left
// scattered; the release then walks memory in order too. A block may be freed
// on any thread: the owner takes such blocks back when it next needs room.
// Larger blocks go straight to malloc and free.

#include <cstddef>
#include <cstdint>

namespace velvox::detail {

void* allocateSmall(size_t size);
void deallocateSmall(void* pointer, size_t size);
// How many blocks this thread has asked for (objects made), for measurements.
uint64_t smallAllocationCount();
// A mark and a trim around a piece of work: the trim gives back to the
// system the empty slabs of this thread that no allocation needed since the
// mark, so that the memory a large tree held does not stay once the work has
// become small again. The decoder does both around every parse.
void markSmallObjectLists();
void trimSmallObjectLists();
// Bytes in this thread's empty and never-used slabs, kept for reuse, for measurements.
size_t smallObjectListBytes();
// Free bytes inside this thread's slabs that still hold objects, for measurements.
size_t smallObjectSlackBytes();
// Bytes of slabs mapped by all threads, for measurements.
size_t smallObjectMappedBytes();

} // namespace velvox::detail
