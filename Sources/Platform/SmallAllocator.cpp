#include "SmallAllocator.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <sys/mman.h>

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

size_t smallObjectSlackBytes()
{
    return 0;
}

size_t smallObjectMappedBytes()
{
    return 0;
}

#else

namespace {

constexpr size_t granularity = 16;
constexpr size_t classCount = 33; // sizes up to 512 bytes
constexpr size_t largestSmall = granularity * (classCount - 1);
// Small slabs, so that a few long-lived objects among many freed ones hold
// little memory; mapped many at a time, so that a growing heap makes few
// system calls.
constexpr size_t slabSize = 16 * 1024;
constexpr size_t slabsPerMapping = 64;
// Idle slabs a thread keeps outside a mark and trim before it unmaps emptied ones (64 MB).
constexpr size_t emptyLimit = (64 << 20) / slabSize;
// Idle slabs a trim leaves (1 MB).
constexpr size_t emptyReserve = slabsPerMapping;

struct FreeBlock {
    FreeBlock* next;
};

struct Heap;

enum class SlabState : uint8_t {
    Current, // the slab its class allocates from
    Partial, // on its class's list of slabs with free blocks
    Full,    // on no list: every block handed out (or its frees not yet seen)
    Empty,   // on the heap's stack of empty slabs
};

// The header at the start of every slab. The first line is the owner's
// alone; blocks freed on other threads arrive on the second, so that they do
// not contend with the owner's allocations.
struct alignas(64) Slab {
    FreeBlock* localFree;
    char* bump;    // the next never-used block
    Heap* owner;   // never changes: a heap outlives its threads
    Slab* prev;    // on the partial list
    Slab* next;    // on the partial list or the empty stack
    uint32_t used; // blocks handed out and not yet taken back
    uint32_t blockSize;
    SlabState state;
    uint8_t sizeClass;

    alignas(64) std::atomic<FreeBlock*> remoteFree;
    Slab* allPrev;
    Slab* allNext;

    char* firstBlock() { return reinterpret_cast<char*>(this) + sizeof(Slab); }
    char* limit() { return reinterpret_cast<char*>(this) + slabSize; }
    size_t capacity() const { return (slabSize - sizeof(Slab)) / blockSize; }
};
static_assert(sizeof(Slab) == 128);

// A thread's slabs. Heaps are never destroyed: when its thread ends, a heap
// waits in a pool for the next thread, so that a slab's owner is always a
// heap that blocks freed elsewhere can be handed to.
struct Heap {
    Slab* current[classCount];
    Slab* partial[classCount];
    Slab* empty;
    size_t emptyCount;
    // Mapped slabs never used yet, from `fresh` on: their pages are not
    // touched until a slab is taken.
    char* fresh;
    size_t freshCount;
    // The fewest idle (empty or fresh) slabs since the mark: that many were not needed.
    size_t idleLowWater;

    size_t idleCount() const { return emptyCount + freshCount; }
    Slab* all;
    Heap* nextInPool;
    // Blocks freed on other threads since the owner last took them back (on
    // a line of its own, written by those threads).
    alignas(64) std::atomic<uint64_t> remoteFrees;
};

std::atomic<size_t> s_mappedBytes { 0 };

// Heaps of ended threads; and the one that serves allocations a thread makes
// after its own heap has gone (in the destructors of its last thread-locals).
std::atomic_flag s_poolLock = ATOMIC_FLAG_INIT;
constinit Heap* s_pool = nullptr;
constinit Heap s_lateHeap {};

struct SpinLock {
    std::atomic_flag& flag;
    explicit SpinLock(std::atomic_flag& f)
        : flag(f)
    {
        while (flag.test_and_set(std::memory_order_acquire))
            flag.wait(true, std::memory_order_relaxed);
    }
    ~SpinLock()
    {
        flag.clear(std::memory_order_release);
        flag.notify_one();
    }
};

constinit thread_local Heap* t_heap = nullptr;
constinit thread_local bool t_heapReleased = false;
constinit thread_local uint64_t t_allocations = 0;

inline size_t classOf(size_t size)
{
    return size ? (size + granularity - 1) / granularity : 1;
}

inline Slab* slabOf(void* pointer)
{
    return reinterpret_cast<Slab*>(reinterpret_cast<uintptr_t>(pointer) & ~(slabSize - 1));
}

// Maps `slabsPerMapping` slabs aligned to their size; answers where they start.
char* mapSlabs()
{
    constexpr size_t length = slabsPerMapping * slabSize;
    void* memory = mmap(nullptr, length + slabSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    auto start = reinterpret_cast<uintptr_t>(memory);
    uintptr_t aligned = (start + slabSize - 1) & ~(slabSize - 1);
    if (aligned > start)
        munmap(memory, aligned - start);
    if (aligned + length < start + length + slabSize)
        munmap(reinterpret_cast<void*>(aligned + length), start + slabSize - aligned);
    s_mappedBytes.fetch_add(length, std::memory_order_relaxed);
    return reinterpret_cast<char*>(aligned);
}

void unmapSlab(Heap& heap, Slab* slab)
{
    if (slab->allPrev)
        slab->allPrev->allNext = slab->allNext;
    else
        heap.all = slab->allNext;
    if (slab->allNext)
        slab->allNext->allPrev = slab->allPrev;
    munmap(slab, slabSize);
    s_mappedBytes.fetch_sub(slabSize, std::memory_order_relaxed);
}

void resetSlab(Slab* slab)
{
    slab->localFree = nullptr;
    slab->bump = slab->firstBlock();
}

void unlinkPartial(Heap& heap, Slab* slab)
{
    if (slab->prev)
        slab->prev->next = slab->next;
    else
        heap.partial[slab->sizeClass] = slab->next;
    if (slab->next)
        slab->next->prev = slab->prev;
    slab->prev = slab->next = nullptr;
}

void pushPartial(Heap& heap, Slab* slab)
{
    slab->state = SlabState::Partial;
    slab->prev = nullptr;
    slab->next = heap.partial[slab->sizeClass];
    if (slab->next)
        slab->next->prev = slab;
    heap.partial[slab->sizeClass] = slab;
}

void pushEmpty(Heap& heap, Slab* slab)
{
    if (heap.idleCount() >= emptyLimit) {
        unmapSlab(heap, slab);
        return;
    }
    resetSlab(slab);
    slab->state = SlabState::Empty;
    slab->next = heap.empty;
    heap.empty = slab;
    ++heap.emptyCount;
}

// The last block of a slab came back: it starts again from its first block.
void slabEmptied(Heap& heap, Slab* slab)
{
    switch (slab->state) {
    case SlabState::Current:
        resetSlab(slab);
        return;
    case SlabState::Partial:
        unlinkPartial(heap, slab);
        pushEmpty(heap, slab);
        return;
    case SlabState::Full:
        pushEmpty(heap, slab);
        return;
    case SlabState::Empty:
        return;
    }
}

// Takes back the blocks other threads freed into the slab.
bool collectRemoteFrees(Heap& heap, Slab* slab)
{
    FreeBlock* list = slab->remoteFree.exchange(nullptr, std::memory_order_acquire);
    if (!list)
        return false;
    uint32_t count = 1;
    FreeBlock* tail = list;
    for (; tail->next; tail = tail->next)
        ++count;
    slab->used -= count;
    if (!slab->used) {
        slabEmptied(heap, slab);
        return true;
    }
    tail->next = slab->localFree;
    slab->localFree = list;
    if (slab->state == SlabState::Full)
        pushPartial(heap, slab);
    return true;
}

void collectAllRemoteFrees(Heap& heap)
{
    if (!heap.remoteFrees.load(std::memory_order_relaxed))
        return;
    heap.remoteFrees.exchange(0, std::memory_order_acquire);
    for (Slab* slab = heap.all; slab;) {
        Slab* next = slab->allNext; // the slab may be unmapped
        collectRemoteFrees(heap, slab);
        slab = next;
    }
}

// Unmaps `count` idle slabs: fresh ones first (one call for all), then
// empty ones (which of them does not matter, only how many).
void releaseIdleSlabs(Heap& heap, size_t count)
{
    if (size_t fresh = std::min(count, heap.freshCount)) {
        heap.freshCount -= fresh;
        munmap(heap.fresh + heap.freshCount * slabSize, fresh * slabSize);
        s_mappedBytes.fetch_sub(fresh * slabSize, std::memory_order_relaxed);
        count -= fresh;
    }
    for (; count; --count) {
        Slab* slab = heap.empty;
        heap.empty = slab->next;
        --heap.emptyCount;
        unmapSlab(heap, slab);
    }
}

Slab* takeIdleSlab(Heap& heap)
{
    Slab* slab = heap.empty;
    if (slab) {
        heap.empty = slab->next;
        --heap.emptyCount;
    } else {
        if (!heap.freshCount) {
            heap.fresh = mapSlabs();
            heap.freshCount = slabsPerMapping;
        }
        slab = reinterpret_cast<Slab*>(heap.fresh);
        heap.fresh += slabSize;
        --heap.freshCount;
        slab->owner = &heap;
        slab->remoteFree.store(nullptr, std::memory_order_relaxed);
        slab->allPrev = nullptr;
        slab->allNext = heap.all;
        if (heap.all)
            heap.all->allPrev = slab;
        heap.all = slab;
    }
    heap.idleLowWater = std::min(heap.idleLowWater, heap.idleCount());
    return slab;
}

inline void* takeBlock(Slab* slab)
{
    if (FreeBlock* block = slab->localFree) {
        slab->localFree = block->next;
        ++slab->used;
        // The next free block is likely cold: fetch it while this one is used.
        __builtin_prefetch(block->next, 1);
        return block;
    }
    char* block = slab->bump;
    if (block + slab->blockSize > slab->limit())
        return nullptr;
    slab->bump = block + slab->blockSize;
    ++slab->used;
    return block;
}

void* allocateFrom(Heap& heap, size_t sizeClass)
{
    for (;;) {
        if (Slab* slab = heap.current[sizeClass]) {
            if (void* block = takeBlock(slab))
                return block;
            if (collectRemoteFrees(heap, slab))
                continue;
            slab->state = SlabState::Full;
            heap.current[sizeClass] = nullptr;
        }
        Slab* slab = heap.partial[sizeClass];
        if (!slab && heap.remoteFrees.load(std::memory_order_relaxed)) {
            collectAllRemoteFrees(heap);
            slab = heap.partial[sizeClass];
        }
        if (slab)
            unlinkPartial(heap, slab);
        else {
            slab = takeIdleSlab(heap);
            slab->blockSize = static_cast<uint32_t>(sizeClass * granularity);
            slab->sizeClass = static_cast<uint8_t>(sizeClass);
            slab->used = 0;
            resetSlab(slab);
        }
        slab->state = SlabState::Current;
        heap.current[sizeClass] = slab;
    }
}

// Gives the heap back to the pool when its thread ends.
struct HeapRelease {
    void arm() { }
    ~HeapRelease()
    {
        Heap* heap = t_heap;
        t_heap = nullptr;
        t_heapReleased = true;
        if (!heap)
            return;
        heap->remoteFrees.store(1, std::memory_order_relaxed);
        collectAllRemoteFrees(*heap);
        for (size_t sizeClass = 0; sizeClass < classCount; ++sizeClass) {
            Slab* slab = heap->current[sizeClass];
            if (slab && !slab->used) {
                heap->current[sizeClass] = nullptr;
                slab->state = SlabState::Full;
                pushEmpty(*heap, slab);
            }
        }
        releaseIdleSlabs(*heap, heap->idleCount());
        heap->idleLowWater = 0;
        SpinLock lock(s_poolLock);
        heap->nextInPool = s_pool;
        s_pool = heap;
    }
};

thread_local HeapRelease t_heapRelease;

Heap* acquireHeap()
{
    Heap* heap;
    {
        SpinLock lock(s_poolLock);
        heap = s_pool;
        if (heap)
            s_pool = heap->nextInPool;
    }
    if (!heap)
        heap = new Heap {};
    t_heap = heap;
    t_heapRelease.arm(); // constructs it, so that the heap goes back at thread exit
    return heap;
}

[[gnu::noinline]] void* allocateSlow(size_t sizeClass)
{
    if (t_heapReleased) {
        SpinLock lock(s_poolLock);
        s_lateHeap.remoteFrees.store(1, std::memory_order_relaxed);
        collectAllRemoteFrees(s_lateHeap);
        return allocateFrom(s_lateHeap, sizeClass);
    }
    Heap* heap = t_heap ? t_heap : acquireHeap();
    return allocateFrom(*heap, sizeClass);
}

[[gnu::noinline]] void freeRemote(Slab* slab, FreeBlock* block)
{
    FreeBlock* head = slab->remoteFree.load(std::memory_order_relaxed);
    do
        block->next = head;
    while (!slab->remoteFree.compare_exchange_weak(head, block, std::memory_order_release, std::memory_order_relaxed));
    slab->owner->remoteFrees.fetch_add(1, std::memory_order_release);
}

} // namespace

uint64_t smallAllocationCount()
{
    return t_allocations;
}

void* allocateSmall(size_t size)
{
    ++t_allocations;
    if (size > largestSmall) {
        void* pointer = malloc(size);
        if (!pointer)
            throw std::bad_alloc();
        return pointer;
    }
    size_t sizeClass = classOf(size);
    if (Heap* heap = t_heap) {
        if (Slab* slab = heap->current[sizeClass]) {
            if (void* block = takeBlock(slab))
                return block;
        }
    }
    return allocateSlow(sizeClass);
}

void deallocateSmall(void* pointer, size_t size)
{
    if (!pointer)
        return;
    if (size > largestSmall) {
        free(pointer);
        return;
    }
    Slab* slab = slabOf(pointer);
    auto* block = static_cast<FreeBlock*>(pointer);
    Heap* heap = t_heap;
    if (slab->owner != heap) {
        freeRemote(slab, block);
        return;
    }
    block->next = slab->localFree;
    slab->localFree = block;
    if (!--slab->used)
        slabEmptied(*heap, slab);
    else if (slab->state == SlabState::Full)
        pushPartial(*heap, slab);
}

void markSmallObjectLists()
{
    if (Heap* heap = t_heap) {
        collectAllRemoteFrees(*heap);
        heap->idleLowWater = heap->idleCount();
    }
}

void trimSmallObjectLists()
{
    Heap* heap = t_heap;
    if (!heap)
        return;
    // A reserve of one mapping's worth stays, so that work between parses
    // (models made and dropped) does not map and unmap slabs every time.
    size_t idle = heap->idleCount();
    releaseIdleSlabs(*heap, std::min(heap->idleLowWater, idle - std::min(idle, emptyReserve)));
    heap->idleLowWater = 0;
}

size_t smallObjectListBytes()
{
    Heap* heap = t_heap;
    return heap ? heap->idleCount() * slabSize : 0;
}

size_t smallObjectSlackBytes()
{
    Heap* heap = t_heap;
    if (!heap)
        return 0;
    size_t bytes = 0;
    for (Slab* slab = heap->all; slab; slab = slab->allNext) {
        if (slab->state != SlabState::Empty)
            bytes += (slab->capacity() - slab->used) * slab->blockSize;
    }
    return bytes;
}

size_t smallObjectMappedBytes()
{
    return s_mappedBytes.load(std::memory_order_relaxed);
}

#endif

} // namespace velvox::detail
