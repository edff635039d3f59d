#pragma once

// The decoder's parse state (token, object stack, cache of strings and
// numbers) and the parser's functions, shared by the files that hold them:
// JCTokens (white space, tokens, errors), JCStrings, JCNumbers, JCTokenCache,
// JCBuffers (the object stack and token buffer) and JCParseCollections (arrays,
// dictionaries, one parse). Not installed.

#include "JCInternal.h"
#include "JSONDecoder.h"

#include <Platform/Collections.h>
#include <Platform/Error.h>
#include <Platform/Number.h>
#include <Platform/String.h>

#include <array>
#include <string_view>

namespace velvox::detail {

inline constexpr char sourcePath[] = "JSONCodec/JSONCodec";
// Deeper nesting than this is refused, so that hostile input cannot exhaust the stack.
inline constexpr size_t maximumDepth = 4096;

enum JCTokenType : uint8_t {
    JCTokenTypeInvalid = 0,
    JCTokenTypeNumber = 1,
    JCTokenTypeString = 2,
    JCTokenTypeObjectBegin = 3,
    JCTokenTypeObjectEnd = 4,
    JCTokenTypeArrayBegin = 5,
    JCTokenTypeArrayEnd = 6,
    JCTokenTypeSeparator = 7,
    JCTokenTypeComma = 8,
    JCTokenTypeTrue = 9,
    JCTokenTypeFalse = 10,
    JCTokenTypeNull = 11,
};

inline bool isValueToken(uint8_t type)
{
    return type == JCTokenTypeNumber || type == JCTokenTypeString || type == JCTokenTypeObjectBegin || type == JCTokenTypeArrayBegin
        || type == JCTokenTypeTrue || type == JCTokenTypeFalse || type == JCTokenTypeNull;
}

enum JCValueType : uint8_t {
    JCValueTypeNone = 0,
    JCValueTypeString = 5,
    JCValueTypeLongLong = 7,
    JCValueTypeUnsignedLongLong = 11,
    JCValueTypeDouble = 13,
};

// Accept masks of the array and dictionary state machines.
enum : int { JCAcceptValue = 1,
    JCAcceptComma = 2,
    JCAcceptEnd = 4 };

inline constexpr uint64_t JCHashSeed = 1402737925;
inline constexpr size_t JCCacheBuckets = 1024;

inline constexpr char unexpectedTokenMessage[]
    = "Unexpected token, wanted '{', '}', '[', ']', ',', ':', 'true', 'false', 'null', '\"STRING\"', 'NUMBER'.";

struct JCConstPtrRange {
    const uint8_t* ptr { nullptr };
    size_t length { 0 };
};

struct JCTokenCacheItem {
    Object* object { nullptr }; // retained by the cache
    uint64_t hash { 0 };
    size_t keyHash { 0 };
    size_t size { 0 };
    // The value's bytes: a number's eight or a short string's up to sixteen
    // in `inlineBytes`, a longer string's own bytes (alive while the cache
    // holds the string). A hit on a short value then reads the item alone,
    // never the object.
    const uint8_t* bytes { nullptr };
    uint8_t inlineBytes[16] {};
    // References handed out by hits of this parse and not yet counted: they
    // are added in one step when the parse ends (or the item is reused), so a
    // key met a thousand times costs one atomic operation, not a thousand.
    // An object made by an earlier parse stays alive meanwhile by the cache's
    // reference; one made by this parse, by the tree's. Before anything of
    // the tree is released during a parse, every count is made exact.
    uint32_t pendingRefs { 0 };
    uint8_t type { JCValueTypeNone };
    uint8_t pendingListed : 1 { 0 };
    // The cache's own reference to an object this parse made is counted with
    // the hits: one that goes out of the cache unhit is never touched again.
    uint8_t cacheRefUncounted : 1 { 0 };
    // A string whose bytes a JSON string holds as they are (taken from the
    // input without escapes), so that equal input bytes before a quote mark
    // are that string.
    uint8_t plainString : 1 { 0 };
    // The parse that made the object (the cache's generation then).
    uint16_t generation { 0 };
};
static_assert(sizeof(JCTokenCacheItem) == 64, "one cache line per item");

struct JCTokenValue {
    JCConstPtrRange ptrRange;
    uint8_t type { JCValueTypeNone };
    uint64_t hash { 0 };
    union {
        long long longLongValue;
        unsigned long long unsignedLongLongValue;
        double doubleValue;
    } number {};
    JCTokenCacheItem* cacheItem { nullptr };
};

struct JCParseToken {
    uint8_t type { JCTokenTypeInvalid };
    JCConstPtrRange tokenPtrRange;
    JCTokenValue value;
};

struct JCObjectStack {
    enum : uint32_t { JCObjectStackLocationMask = 3,
        JCObjectStackOnStack = 1,
        JCObjectStackOnHeap = 2,
        JCObjectStackMustFree = 4 };
    Object** objects { nullptr };
    Object** keys { nullptr };
    size_t* cfHashes { nullptr };
    size_t index { 0 };
    size_t count { 0 };
    uint32_t flags { 0 };
    size_t roundSizeUpToMultipleOf { 2048 };
};

struct JCTokenCache {
    JCTokenCacheItem* items { nullptr };
    size_t count { 0 };
    uint8_t* age { nullptr };
    uint32_t prng_lfsr { 0 };
    // The items with pending references, in the order they got their first.
    uint16_t* pending { nullptr };
    size_t pendingCount { 0 };

    // The keys of a dictionary tend to come in the order of the last one of
    // its kind: the bucket of the key that followed the key of each bucket,
    // and of the first key at each depth. A hint only, checked by the bytes.
    static constexpr uint16_t noBucket = 0xFFFF;
    static constexpr size_t predictedDepths = 64;
    std::array<uint16_t, JCCacheBuckets> nextKey;
    std::array<uint16_t, predictedDepths> firstKey;

    // The parse under way: an item of it holds an object that no other
    // thread can reach yet, whose count needs no atomic operation. The
    // number moves on when a parse begins and when it ends, so that it never
    // names a parse whose tree has been handed out. When it wraps, every
    // item's mark is cleared.
    uint16_t generation { 0 };

    JCTokenCache()
    {
        forgetPredictions();
    }
    void forgetPredictions()
    {
        nextKey.fill(noBucket);
        firstKey.fill(noBucket);
    }

    // A probe that matched the item in `bucket`: its age grows, and the
    // reference the caller gets is counted when the parse ends.
    Object* hit(JCTokenCacheItem& item, size_t bucket)
    {
        age[bucket] = static_cast<uint8_t>(age[bucket] * 2 + 1);
        if (!item.pendingListed) {
            item.pendingListed = 1;
            pending[pendingCount++] = static_cast<uint16_t>(bucket);
        }
        ++item.pendingRefs;
        return item.object;
    }

    // Adds `delta` references (-1 at the least) to an item's object: without
    // an atomic operation when this parse made it.
    void adjustReferences(const JCTokenCacheItem& item, int64_t delta) const
    {
        if (!delta)
            return;
        if (item.generation == generation)
            item.object->adjustUnshared(delta);
        else if (delta < 0)
            item.object->deref();
        else
            item.object->ref(static_cast<uint32_t>(delta));
    }

    // Makes every count exact: the references the hits handed out, and the
    // cache's own to the objects of this parse, are added.
    void applyPendingRefs()
    {
        for (size_t i = 0; i < pendingCount; ++i) {
            auto& item = items[pending[i]];
            adjustReferences(item, item.pendingRefs + item.cacheRefUncounted);
            item.pendingRefs = 0;
            item.pendingListed = 0;
            item.cacheRefUncounted = 0;
        }
        pendingCount = 0;
    }

    void nextGeneration()
    {
        if (!++generation) {
            for (size_t i = 0; i < count; ++i)
                items[i].generation = 0;
            generation = 1;
        }
    }
    void beginParse() { nextGeneration(); }
    void endParse()
    {
        applyPendingRefs();
        nextGeneration();
    }
};

// The cache's buckets, kept per thread between decoders (JCTokenCache.cpp).
JCTokenCacheItem* allocateBuckets(size_t count);
void freeBuckets(JCTokenCacheItem* items);

struct JCParseState {
    JCParseOptionFlags parseOptionFlags { 0 };
    const uint8_t* stringBytes { nullptr };
    size_t stringLength { 0 };
    size_t atIndex { 0 };
    JCParseToken token;
    JCManagedBuffer tokenBuffer;
    JCObjectStack objectStack;
    JCTokenCache cache;
    RefPtr<Error> error;
    bool mutableCollections { false };
    size_t depth { 0 };

    ~JCParseState()
    {
        releaseCachedObjects();
        freeBuckets(cache.items);
        free(cache.age);
        free(cache.pending);
    }

    void clearCache()
    {
        releaseCachedObjects();
        cache.forgetPredictions();
        std::fill_n(cache.items, cache.count, JCTokenCacheItem {});
        memset(cache.age, 0, cache.count);
    }

    // The cache's references go, once the pending ones are counted; the items
    // keep their now dangling pointers (the caller resets or frees them).
    void releaseCachedObjects()
    {
        // A decoder whose cache could not be allocated holds nothing.
        if (!cache.items)
            return;
        cache.applyPendingRefs();
        for (size_t i = 0; i < cache.count; ++i) {
            if (Object* object = cache.items[i].object)
                object->deref();
        }
    }
};

// The parser's functions; a friend of the collection factories. The names in
// snake_case are the ones the decoder's documentation gives its parts; the
// helpers around them are camelCase. Each group lives in the file named.
class JCParser {
public:
    // One parse from start to end (JCParseCollections.cpp).
    static Object* JCParseUTF8String(JCParseState* parseState, bool mutableCollections, const uint8_t* string, size_t length, RefPtr<Error>* error);

private:
    // Errors: the first one of a parse is kept, with its byte index and line.
    template<typename... Args>
    static void jc_error(JCParseState* state, std::string_view format, const Args&... args)
    {
        if (state->error)
            return;
        auto message = String::format(format, args...);
        auto userInfo = Dictionary::create({
            { LocalizedDescriptionKey, message.ptr() },
            { JCAtIndexKey, Number::withUnsignedInteger(state->atIndex).ptr() },
            { JCLineNumberKey, Number::withUnsignedInteger(lineNumberAt(state, state->atIndex)).ptr() },
        });
        state->error = Error::create(JCErrorDomain, -1, userInfo.ptr());
    }

    // White space, comments and tokens (JCTokens.cpp; nextToken and
    // readScalarToken inline in JCTokens.h).
    static void jc_error_parse_accept_or3(JCParseState* state, int acceptMask, const char* valueText, const char* endText);
    static bool jc_parse_next_token(JCParseState*);
    static bool nextToken(JCParseState*);
    static bool readScalarToken(JCParseState*, const uint8_t* at, bool isString);
    static void jc_parse_skip_whitespace(JCParseState*);
    static size_t jc_parse_is_newline(JCParseState*, const uint8_t* at);
    // The 1-based line of a byte: the newlines before it that white space and
    // comments hold (none inside strings), counted as the tokenizer skips them.
    static size_t lineNumberAt(JCParseState*, size_t index);
    // Whether a comment ("//" or "/*") starts at `at`; skipping one that does,
    // up to `limit`: where it ends, with the newlines it holds added to `newlines`.
    static bool startsComment(JCParseState*, size_t at);
    static size_t skipComment(JCParseState*, size_t at, size_t limit, size_t& newlines);

    // Scalars (JCStrings.cpp, JCNumbers.cpp).
    static bool jc_parse_string(JCParseState*);
    static bool jc_parse_number(JCParseState*);

    // The cache of strings and numbers (JCTokenCache.cpp).
    static Object* jc_cachedObjects(JCParseState*);
    static Object* predictedString(JCParseState*, size_t quote, uint16_t bucket);
    static void jc_cache_age(JCParseState*);

    // Building the tree (JCParseCollections.cpp).
    static Object* json_parse_it(JCParseState*);
    static Object* jc_object_for_token(JCParseState*);
    // The same, with strings and numbers (most values) sent to the cache at once.
    static Object* objectForValueToken(JCParseState* state)
    {
        uint8_t type = state->token.type;
        return type == JCTokenTypeString || type == JCTokenTypeNumber ? jc_cachedObjects(state) : jc_object_for_token(state);
    }
    static Object* jc_parse_array(JCParseState*);
    static Object* jc_parse_dictionary(JCParseState*);

    // The object stack and the token buffer (JCBuffers.cpp).
    static void jc_objectStack_setToStackBuffer(JCObjectStack*, Object** objects, Object** keys, size_t* hashes, size_t count);
    static bool jc_objectStack_resize(JCObjectStack*, size_t newCount);
    // Grows the stack by 128 entries when fewer than 4 are left; records the error when it cannot.
    static bool makeObjectStackRoom(JCParseState*, std::string_view failureFormat, long line);
    static void jc_objectStack_release(JCObjectStack*);
    static bool growTokenBuffer(JCParseState*, size_t needed);
};

} // namespace velvox::detail
