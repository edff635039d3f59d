#pragma once

// Pieces shared by the decoder and the encoder. Not installed.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <Platform/UTF8.h>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace velvox::detail {

using ConversionResult = UTF8Result;

inline ConversionResult ConvertSingleCodePointInUTF8(const uint8_t* source, const uint8_t* end, const uint8_t** next, uint32_t* codePoint)
{
    return decodeUTF8(source, end, next, codePoint);
}

// The end of the run of bytes from `at` that a JSON string holds as they are
// (read or written alike): ASCII from 0x20 on but the quote mark and the
// backslash, and the bytes from 0x80 on unless `stopAtNonASCII`. Sixteen at a time.
inline const uint8_t* skipPlainStringBytes(const uint8_t* at, const uint8_t* end, bool stopAtNonASCII)
{
#ifdef __SSE2__
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    const __m128i space = _mm_set1_epi8(0x20);
    const __m128i flip = _mm_set1_epi8(static_cast<char>(0x80));
    while (end - at >= 16) {
        __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
        __m128i special = _mm_or_si128(_mm_cmpeq_epi8(chunk, quote), _mm_cmpeq_epi8(chunk, backslash));
        // Signed: the bytes from 0x80 on compare below 0x20 too. Flipped: only 0x00-0x1F do.
        if (stopAtNonASCII)
            special = _mm_or_si128(special, _mm_cmplt_epi8(chunk, space));
        else
            special = _mm_or_si128(special, _mm_cmplt_epi8(_mm_xor_si128(chunk, flip), _mm_xor_si128(space, flip)));
        if (int mask = _mm_movemask_epi8(special))
            return at + __builtin_ctz(static_cast<unsigned>(mask));
        at += 16;
    }
#endif
    while (at < end) {
        uint8_t c = *at;
        if (c < 0x20 || c == '"' || c == '\\' || (c >= 0x80 && stopAtNonASCII))
            break;
        ++at;
    }
    return at;
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
