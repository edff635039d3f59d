#pragma once

// Pieces shared by the decoder and the encoder. Not installed.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <Platform/UTF8.h>

namespace velvox::detail {

using ConversionResult = UTF8Result;

inline ConversionResult ConvertSingleCodePointInUTF8(const uint8_t* source, const uint8_t* end, const uint8_t** next, uint32_t* codePoint)
{
    return decodeUTF8(source, end, next, codePoint);
}

// A buffer that starts in the caller's stack storage and moves to the heap
// when it must grow; growth is in whole multiples of its granularity.
struct JCManagedBuffer {
    enum : uint32_t { JCManagedBufferLocationMask = 3, JCManagedBufferOnStack = 1, JCManagedBufferOnHeap = 2, JCManagedBufferMustFree = 4 };
    uint8_t* bytes { nullptr };
    size_t length { 0 };
    uint32_t flags { 0 };
    size_t roundSizeUpToMultipleOf { 4096 };

    void setToStackBuffer(uint8_t* buffer, size_t size)
    {
        release();
        bytes = buffer;
        length = size;
        flags = JCManagedBufferOnStack;
    }
    // Answers false when memory runs out; the old contents stay valid then.
    bool resize(size_t size)
    {
        size_t granularity = roundSizeUpToMultipleOf ? roundSizeUpToMultipleOf : 1;
        // Growing by half again at least: a large output then costs a few
        // reallocations, not one per granule.
        if (size < length + length / 2)
            size = length + length / 2;
        size_t newSize = (size + granularity - 1) / granularity * granularity;
        if ((flags & JCManagedBufferLocationMask) == JCManagedBufferOnStack) {
            auto* heap = static_cast<uint8_t*>(malloc(newSize));
            if (!heap)
                return false;
            memcpy(heap, bytes, length < newSize ? length : newSize);
            bytes = heap;
            flags = JCManagedBufferOnHeap | JCManagedBufferMustFree;
        } else {
            auto* grown = static_cast<uint8_t*>(realloc(bytes, newSize));
            if (!grown)
                return false;
            bytes = grown;
            flags = JCManagedBufferOnHeap | JCManagedBufferMustFree;
        }
        length = newSize;
        return true;
    }
    void release()
    {
        if (flags & JCManagedBufferMustFree)
            free(bytes);
        bytes = nullptr;
        length = 0;
        flags = 0;
    }
    // Hands a heap buffer over to the caller, who frees it.
    uint8_t* take()
    {
        uint8_t* result = bytes;
        bytes = nullptr;
        length = 0;
        flags = 0;
        return result;
    }
};

} // namespace velvox::detail
