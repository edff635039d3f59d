#include "SmallAllocator.h"

#include <cstdint>
#include <cstdlib>
#include <new>

namespace velvox::detail {

namespace {

constexpr size_t granularity = 16;
constexpr size_t classCount = 33; // sizes up to 512 bytes
constexpr size_t largestSmall = granularity * (classCount - 1);
// How many free blocks a list keeps before it gives them back to free().
constexpr size_t listLimit = 1 << 18;

struct FreeBlock {
    FreeBlock* next;
};

struct Lists {
    FreeBlock* heads[classCount] {};
    size_t counts[classCount] {};

    ~Lists()
    {
        for (auto*& head : heads) {
            while (head) {
                FreeBlock* next = head->next;
                free(head);
                head = next;
            }
        }
        s_destroyed = true;
    }
    static thread_local bool s_destroyed;
};

thread_local bool Lists::s_destroyed = false;
thread_local Lists t_lists;
thread_local uint64_t t_allocations = 0;

inline size_t classOf(size_t size)
{
    return (size + granularity - 1) / granularity;
}

} // namespace

uint64_t smallAllocationCount()
{
    return t_allocations;
}

void* allocateSmall(size_t size)
{
    ++t_allocations;
    size_t sizeClass = classOf(size);
    if (size <= largestSmall && !Lists::s_destroyed) {
        auto& lists = t_lists;
        if (FreeBlock* block = lists.heads[sizeClass]) {
            lists.heads[sizeClass] = block->next;
            --lists.counts[sizeClass];
            return block;
        }
        // Allocate the whole class size, so the block fits any size of its class.
        size = sizeClass * granularity;
    }
    void* pointer = malloc(size ? size : 1);
    if (!pointer)
        throw std::bad_alloc();
    return pointer;
}

void deallocateSmall(void* pointer, size_t size)
{
    if (!pointer)
        return;
    size_t sizeClass = classOf(size);
    if (size <= largestSmall && !Lists::s_destroyed) {
        auto& lists = t_lists;
        if (lists.counts[sizeClass] < listLimit) {
            auto* block = static_cast<FreeBlock*>(pointer);
            block->next = lists.heads[sizeClass];
            lists.heads[sizeClass] = block;
            ++lists.counts[sizeClass];
            return;
        }
    }
    free(pointer);
}

} // namespace velvox::detail
