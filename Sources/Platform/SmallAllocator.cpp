#include "SmallAllocator.h"

#include <cstdint>
#include <cstdlib>
#include <new>

// Under AddressSanitizer every object goes straight to the system allocator:
// a recycled block would hide a use-after-free or a double free from it.
#if defined(__SANITIZE_ADDRESS__)
#define VELVOX_PLAIN_ALLOCATION 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELVOX_PLAIN_ALLOCATION 1
#endif
#endif

namespace velvox::detail {

#if defined(VELVOX_PLAIN_ALLOCATION)

static thread_local uint64_t t_allocations = 0;

uint64_t smallAllocationCount()
{
    return t_allocations;
}

void* allocateSmall(size_t size)
{
    ++t_allocations;
    return ::operator new(size ? size : 1);
}

void deallocateSmall(void* pointer, size_t)
{
    ::operator delete(pointer);
}

void markSmallObjectLists()
{
}

void trimSmallObjectLists()
{
}

size_t smallObjectListBytes()
{
    return 0;
}

#else

namespace {

constexpr size_t granularity = 16;
constexpr size_t classCount = 33; // sizes up to 512 bytes
constexpr size_t largestSmall = granularity * (classCount - 1);
// How many free blocks a list keeps before it gives them back to free().
constexpr size_t listLimit = 1 << 18;

struct FreeBlock {
    FreeBlock* next;
};

// Trivial, so that reaching it costs no initialisation check; the cleanup at
// thread exit lives in a separate object that is touched only once.
struct Lists {
    FreeBlock* heads[classCount];
    size_t counts[classCount];
    // The shortest each list has been since the last trim: that many blocks
    // were not needed meanwhile.
    size_t lowWater[classCount];
    bool cleanupRegistered;
};

thread_local Lists t_lists;
thread_local bool t_listsDestroyed = false;
thread_local uint64_t t_allocations = 0;

struct ListsCleanup {
    void arm() { }
    ~ListsCleanup()
    {
        for (size_t sizeClass = 0; sizeClass < classCount; ++sizeClass) {
            for (FreeBlock* block = t_lists.heads[sizeClass]; block;) {
                FreeBlock* next = block->next;
                free(block);
                block = next;
            }
            t_lists.heads[sizeClass] = nullptr;
            t_lists.counts[sizeClass] = 0;
            t_lists.lowWater[sizeClass] = 0;
        }
        t_listsDestroyed = true;
    }
};

thread_local ListsCleanup t_cleanup;

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
    if (size <= largestSmall) {
        auto& lists = t_lists;
        if (FreeBlock* block = lists.heads[sizeClass]) {
            lists.heads[sizeClass] = block->next;
            if (--lists.counts[sizeClass] < lists.lowWater[sizeClass])
                lists.lowWater[sizeClass] = lists.counts[sizeClass];
            // The next block of the list is likely cold: fetch it while this one is used.
            __builtin_prefetch(block->next, 1);
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
    if (size <= largestSmall && !t_listsDestroyed) {
        auto& lists = t_lists;
        if (!lists.cleanupRegistered) {
            lists.cleanupRegistered = true;
            t_cleanup.arm(); // constructs it, so that it frees the lists at thread exit
        }
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

void markSmallObjectLists()
{
    auto& lists = t_lists;
    for (size_t sizeClass = 0; sizeClass < classCount; ++sizeClass)
        lists.lowWater[sizeClass] = lists.counts[sizeClass];
}

void trimSmallObjectLists()
{
    auto& lists = t_lists;
    for (size_t sizeClass = 0; sizeClass < classCount; ++sizeClass) {
        // Which blocks go does not matter, only how many: from the head, so
        // that nothing is walked but what is freed.
        for (size_t surplus = lists.lowWater[sizeClass]; surplus; --surplus) {
            FreeBlock* block = lists.heads[sizeClass];
            lists.heads[sizeClass] = block->next;
            free(block);
        }
        lists.counts[sizeClass] -= lists.lowWater[sizeClass];
        lists.lowWater[sizeClass] = 0;
    }
}

size_t smallObjectListBytes()
{
    size_t bytes = 0;
    for (size_t sizeClass = 0; sizeClass < classCount; ++sizeClass)
        bytes += t_lists.counts[sizeClass] * sizeClass * granularity;
    return bytes;
}

#endif

} // namespace velvox::detail
