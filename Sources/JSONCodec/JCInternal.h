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

// The decoder's hash of a string or number: each byte folded in as
// hash × 33 + byte, wrapping. Eight bytes at a time that is
// hash × 33⁸ + Σ byteᵢ × 33⁷⁻ⁱ, whose products do not wait on each other; the
// sum is below 2⁴⁶, so it can be built exactly in narrower lanes: sixteen bytes
// are paired (b × 33 + b′), the pairs paired (p × 33² + p′) and the fours
// joined (q × 33⁴ + q′), leaving the hash two multiplications per sixteen bytes.
inline uint64_t hashRun(uint64_t hash, const uint8_t* p, const uint8_t* end)
{
    constexpr uint64_t k1 = 33, k2 = k1 * 33, k3 = k2 * 33, k4 = k3 * 33, k5 = k4 * 33, k6 = k5 * 33, k7 = k6 * 33, k8 = k7 * 33;
#ifdef __SSE2__
    if (end - p >= 16) {
        const __m128i zero = _mm_setzero_si128();
        const __m128i byteWeights = _mm_set1_epi32(1 << 16 | static_cast<int>(k1));
        const __m128i pairWeights = _mm_set1_epi32(1 << 16 | static_cast<int>(k2));
        const __m128i fourWeight = _mm_set1_epi64x(static_cast<long long>(k4));
        do {
            __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
            // Each pair is below 256 × 34, so the pack does not saturate.
            __m128i pairs = _mm_packs_epi32(_mm_madd_epi16(_mm_unpacklo_epi8(chunk, zero), byteWeights),
                _mm_madd_epi16(_mm_unpackhi_epi8(chunk, zero), byteWeights));
            __m128i fours = _mm_madd_epi16(pairs, pairWeights);
            __m128i eights = _mm_add_epi64(_mm_mul_epu32(fours, fourWeight), _mm_srli_epi64(fours, 32));
            auto first = static_cast<uint64_t>(_mm_cvtsi128_si64(eights));
            auto second = static_cast<uint64_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(eights, eights)));
            hash = hash * (k8 * k8) + first * k8 + second;
            p += 16;
        } while (end - p >= 16);
    }
#endif
    while (end - p >= 8) {
        hash = hash * k8 + p[0] * k7 + p[1] * k6 + p[2] * k5 + p[3] * k4 + p[4] * k3 + p[5] * k2 + p[6] * k1 + p[7];
        p += 8;
    }
    while (p < end)
        hash = hash * 33 + *p++;
    return hash;
}

// A buffer that starts in the caller's stack storage and moves to the heap
// when it must grow; growth is in whole multiples of its granularity.
struct JCManagedBuffer {
    enum : uint32_t { JCManagedBufferLocationMask = 3,
        JCManagedBufferOnStack = 1,
        JCManagedBufferOnHeap = 2,
        JCManagedBufferMustFree = 4 };
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
