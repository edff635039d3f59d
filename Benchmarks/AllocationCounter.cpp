// Counts heap allocations by wrapping the C allocator; operator new goes
// through malloc, so C and C++ libraries are counted alike.

#include "AllocationCounter.h"

#include <atomic>
#include <cstddef>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
}

namespace {
std::atomic<uint64_t> s_allocations { 0 };
}

extern "C" void* malloc(size_t size)
{
    s_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size)
{
    s_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}

extern "C" void* realloc(void* pointer, size_t size)
{
    s_allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(pointer, size);
}

extern "C" void free(void* pointer)
{
    __libc_free(pointer);
}

uint64_t velvox::bench::allocationCount()
{
    return s_allocations.load(std::memory_order_relaxed);
}
