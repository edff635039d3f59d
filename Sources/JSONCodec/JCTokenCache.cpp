// The decoder's cache of recently made strings and numbers: the probe that
// answers a cached object or makes and enters a new one, its aging, the
// prediction of a dictionary's next key, and the buckets kept per thread.

#include "JCParser.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace velvox::detail {

// MARK: Buckets kept per thread

// A decoder made per call (as the one-call conveniences and the request path
// do) would map and zero 64 KB of buckets afresh each time, page faults
// included: the buckets of the last decoder a thread freed wait, still in the
// processor's cache, for the next one it makes.
static thread_local JCTokenCacheItem* t_spareBuckets = nullptr;
static thread_local bool t_spareBucketsGone = false;
struct JCSpareBucketsRelease {
    // Called before a thread keeps spare buckets: its first use registers
    // the destructor that frees them when the thread ends.
    void arm() { }
    ~JCSpareBucketsRelease()
    {
        free(std::exchange(t_spareBuckets, nullptr));
        t_spareBucketsGone = true;
    }
};
static thread_local JCSpareBucketsRelease t_spareBucketsRelease;

JCTokenCacheItem* allocateBuckets(size_t count)
{
    auto* items = std::exchange(t_spareBuckets, nullptr);
    if (!items) // aligned, so that an item is one cache line
        items = static_cast<JCTokenCacheItem*>(aligned_alloc(64, count * sizeof(JCTokenCacheItem)));
    if (items)
        memset(static_cast<void*>(items), 0, count * sizeof(JCTokenCacheItem));
    return items;
}

void freeBuckets(JCTokenCacheItem* items)
{
    if (!items)
        return;
    if (t_spareBuckets || t_spareBucketsGone)
        free(items);
    else {
        t_spareBucketsRelease.arm();
        t_spareBuckets = items;
    }
}

// MARK: The probe

void JCParser::jc_cache_age(JCParseState* state)
{
    auto& cache = state->cache;
    cache.prng_lfsr = (cache.prng_lfsr >> 1) ^ ((0U - (cache.prng_lfsr & 1U)) & 0x80200003U);
    cache.age[cache.prng_lfsr & (cache.count - 1)] >>= 1;
}

Object* JCParser::jc_cachedObjects(JCParseState* state)
{
    auto& value = state->token.value;
    auto& cache = state->cache;
    size_t length = value.ptrRange.length;
    if (value.type == JCValueTypeString && !length) {
        String::empty().ref();
        return &String::empty();
    }
    uint64_t hash = value.hash;
    size_t mask = cache.count - 1;
    JCTokenCacheItem* slot = nullptr;
    size_t slotBucket = 0;
    for (size_t i = 0; i < 4; ++i) {
        size_t bucket = i ? (hash + (length + value.type + 3) * i) & mask : hash & mask;
        auto& item = cache.items[bucket];
        if (!item.object) {
            slot = &item;
            slotBucket = bucket;
            break;
        }
        if (item.hash == hash && item.size == length && item.type == value.type && String::equalBytes(item.bytes, value.ptrRange.ptr, length)) {
            value.cacheItem = &item;
            return cache.hit(item, bucket);
        }
        if (!slot) {
            if (!cache.age[bucket]) {
                slot = &item;
                slotBucket = bucket;
            } else {
                cache.age[bucket] >>= 1;
                jc_cache_age(state);
                jc_cache_age(state);
            }
        }
    }

    Object* object;
    switch (value.type) {
    case JCValueTypeString:
        object = String::create(reinterpret_cast<const char*>(value.ptrRange.ptr), length).leakRef();
        break;
    case JCValueTypeLongLong:
        object = Number::withInteger(value.number.longLongValue).leakRef();
        break;
    case JCValueTypeUnsignedLongLong:
        object = (value.number.unsignedLongLongValue >> 63) ? Number::withUnsignedInteger(value.number.unsignedLongLongValue).leakRef()
                                                            : Number::withInteger(static_cast<long long>(value.number.unsignedLongLongValue)).leakRef();
        break;
    default:
        object = Number::withDouble(value.number.doubleValue).leakRef();
        break;
    }

    if (slot) {
        if (slot->object) {
            // The evicted object's pending references, less the cache's own
            // when that was counted (an uncounted one needs no touch).
            int64_t pending = std::exchange(slot->pendingRefs, 0);
            cache.adjustReferences(*slot, slot->cacheRefUncounted ? pending : pending - 1);
        }
        slot->cacheRefUncounted = 1;
        if (!slot->pendingListed) {
            slot->pendingListed = 1;
            cache.pending[cache.pendingCount++] = static_cast<uint16_t>(slotBucket);
        }
        slot->object = object;
        slot->hash = hash;
        slot->keyHash = 0;
        slot->size = length;
        slot->type = value.type;
        auto offset = reinterpret_cast<uintptr_t>(value.ptrRange.ptr) - reinterpret_cast<uintptr_t>(state->stringBytes);
        slot->plainString = value.type == JCValueTypeString && offset < state->stringLength;
        slot->generation = cache.generation;
        if (length <= sizeof(slot->inlineBytes)) {
            memcpy(slot->inlineBytes, value.ptrRange.ptr, length);
            slot->bytes = slot->inlineBytes;
        } else
            slot->bytes = reinterpret_cast<const uint8_t*>(static_cast<String*>(object)->utf8());
        cache.age[slotBucket] = 0;
        value.cacheItem = slot;
    }
    return object;
}

// The string whose opening quote is at `quote` when it is the one cached in
// `bucket` and that bucket is where the cache's probe for it starts: then the
// probe would hit there at once, so the hit is taken without scanning the
// string or computing its hash. Null otherwise (the caller reads the token).
Object* JCParser::predictedString(JCParseState* state, size_t quote, uint16_t bucket)
{
    auto& cache = state->cache;
    if (bucket >= cache.count)
        return nullptr;
    auto& item = cache.items[bucket];
    size_t length = item.size;
    const uint8_t* bytes = state->stringBytes + quote + 1;
    if (!item.object || !item.plainString || (item.hash & (cache.count - 1)) != bucket || length >= state->stringLength - quote - 1
        || bytes[length] != '"' || !String::equalBytes(item.bytes, bytes, length))
        return nullptr;
    auto& token = state->token;
    token.type = JCTokenTypeString;
    token.tokenPtrRange = { bytes - 1, length + 2 };
    token.value.ptrRange = { bytes, length };
    token.value.type = JCValueTypeString;
    token.value.hash = item.hash;
    token.value.cacheItem = &item;
    state->atIndex = quote + length + 2;
    return cache.hit(item, bucket);
}

} // namespace velvox::detail
