#include "JSONDecoder.h"

#include "JCCollections.h"
#include "JCInternal.h"

#include <Platform/CLocale.h>
#include <Platform/Collections.h>
#include <Platform/Exception.h>
#include <Platform/Number.h>
#include <Platform/String.h>

#include <cerrno>
#include <algorithm>
#include <array>
#include <utility>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fast_float/fast_float.h>

namespace velvox {

VX_DEFINE_CLASS(JSONDecoder, Object)

namespace detail {

namespace {

constexpr char sourcePath[] = "JSONCodec/JSONCodec";
// Deeper nesting than this is refused, so that hostile input cannot exhaust the stack.
constexpr size_t maximumDepth = 4096;

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
enum : int { JCAcceptValue = 1, JCAcceptComma = 2, JCAcceptEnd = 4 };

constexpr uint64_t JCHashSeed = 1402737925;
constexpr size_t JCCacheBuckets = 1024;

const char unexpectedTokenMessage[]
    = "Unexpected token, wanted '{', '}', '[', ']', ',', ':', 'true', 'false', 'null', '\"STRING\"', 'NUMBER'.";

// Skips blanks, tabs, CRs and LFs, sixteen at a time where they run long.
inline size_t skipWhiteSpace(const uint8_t* bytes, size_t at, size_t length)
{
    auto isWhite = [](uint8_t c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; };
    if (at < length && !isWhite(bytes[at]))
        return at;
#ifdef __SSE2__
    const __m128i blank = _mm_set1_epi8(' ');
    const __m128i lineFeed = _mm_set1_epi8('\n');
    const __m128i tab = _mm_set1_epi8('\t');
    const __m128i carriageReturn = _mm_set1_epi8('\r');
    while (length - at >= 16) {
        __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + at));
        __m128i white = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(chunk, blank), _mm_cmpeq_epi8(chunk, lineFeed)),
            _mm_or_si128(_mm_cmpeq_epi8(chunk, tab), _mm_cmpeq_epi8(chunk, carriageReturn)));
        int mask = _mm_movemask_epi8(white);
        if (mask != 0xFFFF)
            return at + __builtin_ctz(static_cast<unsigned>(~mask));
        at += 16;
    }
#endif
    while (at < length && isWhite(bytes[at]))
        ++at;
    return at;
}

} // namespace

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
    enum : uint32_t { JCObjectStackLocationMask = 3, JCObjectStackOnStack = 1, JCObjectStackOnHeap = 2, JCObjectStackMustFree = 4 };
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

static JCTokenCacheItem* allocateBuckets(size_t count)
{
    auto* items = std::exchange(t_spareBuckets, nullptr);
    if (!items) // aligned, so that an item is one cache line
        items = static_cast<JCTokenCacheItem*>(aligned_alloc(64, count * sizeof(JCTokenCacheItem)));
    if (items)
        memset(static_cast<void*>(items), 0, count * sizeof(JCTokenCacheItem));
    return items;
}

static void freeBuckets(JCTokenCacheItem* items)
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
        cache.applyPendingRefs();
        for (size_t i = 0; i < cache.count; ++i) {
            if (Object* object = cache.items[i].object)
                object->deref();
        }
    }
};

// The parser's functions; a friend of the collection factories.
class JCParser {
public:
    static Object* JCParseUTF8String(JCParseState* parseState, bool mutableCollections, const uint8_t* string, size_t length, RefPtr<Error>* error);

private:
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

    static void jc_error_parse_accept_or3(JCParseState* state, int acceptMask, const char* valueText, const char* endText);
    static Object* json_parse_it(JCParseState*);
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
    static bool jc_parse_string(JCParseState*);
    static bool jc_parse_number(JCParseState*);
    static Object* jc_object_for_token(JCParseState*);
    // The same, with strings and numbers (most values) sent to the cache at once.
    static Object* objectForValueToken(JCParseState* state)
    {
        uint8_t type = state->token.type;
        return type == JCTokenTypeString || type == JCTokenTypeNumber ? jc_cachedObjects(state) : jc_object_for_token(state);
    }
    static Object* jc_parse_array(JCParseState*);
    static Object* jc_parse_dictionary(JCParseState*);
    static Object* jc_cachedObjects(JCParseState*);
    static Object* predictedString(JCParseState*, size_t quote, uint16_t bucket);
    static void jc_cache_age(JCParseState*);
    static void jc_objectStack_setToStackBuffer(JCObjectStack*, Object** objects, Object** keys, size_t* hashes, size_t count);
    static bool jc_objectStack_resize(JCObjectStack*, size_t newCount);
    // Grows the stack by 128 entries when fewer than 4 are left; records the error when it cannot.
    static bool jc_objectStack_makeRoom(JCParseState*, std::string_view failureFormat, long line);
    static void jc_objectStack_release(JCObjectStack*);
    static bool growTokenBuffer(JCParseState*, size_t needed);
};

// MARK: Errors

void JCParser::jc_error_parse_accept_or3(JCParseState* state, int acceptMask, const char* valueText, const char* endText)
{
    const char* texts[3];
    int count = 0;
    if (acceptMask & JCAcceptValue)
        texts[count++] = valueText;
    if (acceptMask & JCAcceptComma)
        texts[count++] = "a comma";
    if (acceptMask & JCAcceptEnd)
        texts[count++] = endText;
    int length = static_cast<int>(state->token.tokenPtrRange.length);
    auto* text = reinterpret_cast<const char*>(state->token.tokenPtrRange.ptr);
    std::string_view tokenText(text ? text : "", text ? length : 0);
    switch (count) {
    case 1:
        jc_error(state, "Expected %@, not '%*.*s'", texts[0], length, length, tokenText);
        break;
    case 2:
        jc_error(state, "Expected %@ or %@, not '%*.*s'", texts[0], texts[1], length, length, tokenText);
        break;
    default:
        jc_error(state, "Expected %@, %@, or %@, not '%*.*s", texts[0], texts[1], texts[2], length, length, tokenText);
        break;
    }
}

// MARK: Buffers

void JCParser::jc_objectStack_setToStackBuffer(JCObjectStack* stack, Object** objects, Object** keys, size_t* hashes, size_t count)
{
    memset(objects, 0, count * sizeof(Object*));
    memset(keys, 0, count * sizeof(Object*));
    memset(hashes, 0, count * sizeof(size_t));
    stack->objects = objects;
    stack->keys = keys;
    stack->cfHashes = hashes;
    stack->count = count;
    stack->index = 0;
    stack->flags = JCObjectStack::JCObjectStackOnStack;
}

bool JCParser::jc_objectStack_resize(JCObjectStack* stack, size_t newCount)
{
    size_t granularity = stack->roundSizeUpToMultipleOf;
    newCount = (newCount + granularity - 1) / granularity * granularity;
    auto grow = [&](auto*& array, bool onStack) {
        using T = std::remove_reference_t<decltype(*array)>;
        T* grown;
        if (onStack) {
            grown = static_cast<T*>(malloc(newCount * sizeof(T)));
            if (grown)
                memcpy(grown, array, stack->count * sizeof(T));
        } else
            grown = static_cast<T*>(realloc(array, newCount * sizeof(T)));
        if (!grown)
            return false;
        memset(grown + stack->count, 0, (newCount - stack->count) * sizeof(T));
        array = grown;
        return true;
    };
    bool onStack = (stack->flags & JCObjectStack::JCObjectStackLocationMask) == JCObjectStack::JCObjectStackOnStack;
    // Each array moves on its own; the stack flag changes only once all three have.
    Object** objects = stack->objects;
    Object** keys = stack->keys;
    size_t* hashes = stack->cfHashes;
    if (!grow(objects, onStack))
        return false;
    if (!grow(keys, onStack)) {
        if (onStack)
            free(objects);
        return false;
    }
    if (!grow(hashes, onStack)) {
        if (onStack) {
            free(objects);
            free(keys);
        }
        return false;
    }
    stack->objects = objects;
    stack->keys = keys;
    stack->cfHashes = hashes;
    stack->count = newCount;
    stack->flags = JCObjectStack::JCObjectStackOnHeap | JCObjectStack::JCObjectStackMustFree;
    return true;
}

bool JCParser::jc_objectStack_makeRoom(JCParseState* state, std::string_view failureFormat, long line)
{
    auto& stack = state->objectStack;
    if (stack.index <= stack.count - 4 || jc_objectStack_resize(&stack, stack.count + 128))
        return true;
    jc_error(state, failureFormat, stack.count - 4, sourcePath, line);
    return false;
}

void JCParser::jc_objectStack_release(JCObjectStack* stack)
{
    if (stack->flags & JCObjectStack::JCObjectStackMustFree) {
        free(stack->objects);
        free(stack->keys);
        free(stack->cfHashes);
    }
    *stack = JCObjectStack {};
}

bool JCParser::growTokenBuffer(JCParseState* state, size_t needed)
{
    // Keep 16 bytes of head room, so a code point can always be written.
    if (needed + 15 <= state->tokenBuffer.length)
        return true;
    return state->tokenBuffer.resize(needed + 1023);
}

// MARK: White space and tokens

size_t JCParser::jc_parse_is_newline(JCParseState* state, const uint8_t* at)
{
    const uint8_t* end = state->stringBytes + state->stringLength;
    uint8_t c = *at;
    if (c == '\n')
        return 1;
    if (c == '\r')
        return at + 1 < end && at[1] == '\n' ? 2 : 1;
    if (state->parseOptionFlags & JCParseOptionUnicodeNewlines) {
        if (c == 0xC2 && at + 1 < end && at[1] == 0x85)
            return 2;
        if (c == 0xE2 && at + 2 < end && at[1] == 0x80 && (at[2] == 0xA8 || at[2] == 0xA9))
            return 3;
    }
    return 0;
}

bool JCParser::startsComment(JCParseState* state, size_t at)
{
    const uint8_t* bytes = state->stringBytes;
    return bytes[at] == '/' && at + 1 < state->stringLength && (bytes[at + 1] == '/' || bytes[at + 1] == '*');
}

size_t JCParser::skipComment(JCParseState* state, size_t at, size_t limit, size_t& newlines)
{
    const uint8_t* bytes = state->stringBytes;
    bool block = bytes[at + 1] == '*';
    at += 2;
    while (at < limit) {
        if (block && bytes[at] == '*' && at + 1 < state->stringLength && bytes[at + 1] == '/')
            return at + 2;
        if (size_t newline = jc_parse_is_newline(state, bytes + at)) {
            at += newline;
            ++newlines;
            if (!block)
                return at; // a line comment ends with its newline
            continue;
        }
        ++at;
    }
    return at;
}

size_t JCParser::lineNumberAt(JCParseState* state, size_t index)
{
    const uint8_t* bytes = state->stringBytes;
    size_t length = state->stringLength;
    index = std::min(index, length);
    bool comments = state->parseOptionFlags & JCParseOptionComments;
    size_t line = 1;
    size_t at = 0;
    while (at < index) {
        uint8_t c = bytes[at];
        if (c == '"') {
            for (++at; at < index; ++at) {
                if (bytes[at] == '\\')
                    ++at;
                else if (bytes[at] == '"') {
                    ++at;
                    break;
                }
            }
            continue;
        }
        if (comments && startsComment(state, at)) {
            at = skipComment(state, at, index, line);
            continue;
        }
        if (size_t newline = jc_parse_is_newline(state, bytes + at)) {
            at += newline;
            ++line;
            continue;
        }
        ++at;
    }
    return line;
}

void JCParser::jc_parse_skip_whitespace(JCParseState* state)
{
    const uint8_t* bytes = state->stringBytes;
    size_t length = state->stringLength;
    // Lines are not counted here: an error recounts them (lineNumberAt), so
    // the common white space (blanks, tabs, CR and LF) is a plain skip.
    size_t at = skipWhiteSpace(bytes, state->atIndex, length);
    state->atIndex = at;
    if (at >= length || !(state->parseOptionFlags & (JCParseOptionComments | JCParseOptionUnicodeNewlines)))
        return;
    if (bytes[at] != '/' && bytes[at] < 0xC2)
        return;

    bool comments = state->parseOptionFlags & JCParseOptionComments;
    while (state->atIndex < length) {
        uint8_t c = bytes[state->atIndex];
        if (c == ' ' || c == '\t') {
            ++state->atIndex;
            continue;
        }
        if (size_t newline = jc_parse_is_newline(state, bytes + state->atIndex)) {
            state->atIndex += newline;
            continue;
        }
        if (comments && startsComment(state, state->atIndex)) {
            size_t lines = 0; // counted only when an error asks (lineNumberAt)
            state->atIndex = skipComment(state, state->atIndex, length, lines);
            continue;
        }
        return;
    }
}

// Reads the next token. Answers false at the end of the input (no error) or
// on an error (recorded).
bool JCParser::jc_parse_next_token(JCParseState* state)
{
    // Most tokens follow another at once or after white space; skip the call
    // when the next byte cannot begin white space or a comment.
    if (state->atIndex < state->stringLength) {
        uint8_t next = state->stringBytes[state->atIndex];
        if (next <= ' ' || next == '/' || next >= 0x80)
            jc_parse_skip_whitespace(state);
    }
    auto& token = state->token;
    token.type = JCTokenTypeInvalid;
    token.value.cacheItem = nullptr;
    if (state->atIndex >= state->stringLength)
        return false;
    const uint8_t* at = state->stringBytes + state->atIndex;
    size_t left = state->stringLength - state->atIndex;
    token.tokenPtrRange = { at, 1 };
    auto literal = [&](const char* rest, size_t restLength, uint8_t type) {
        if (left > restLength && !memcmp(at + 1, rest, restLength)) {
            token.type = type;
            token.tokenPtrRange.length = restLength + 1;
            state->atIndex += restLength + 1;
            return true;
        }
        jc_error(state, unexpectedTokenMessage);
        return false;
    };
    switch (*at) {
    case '{':
        token.type = JCTokenTypeObjectBegin;
        break;
    case '}':
        token.type = JCTokenTypeObjectEnd;
        break;
    case '[':
        token.type = JCTokenTypeArrayBegin;
        break;
    case ']':
        token.type = JCTokenTypeArrayEnd;
        break;
    case ':':
        token.type = JCTokenTypeSeparator;
        break;
    case ',':
        token.type = JCTokenTypeComma;
        break;
    case 't':
        return literal("rue", 3, JCTokenTypeTrue);
    case 'f':
        return literal("alse", 4, JCTokenTypeFalse);
    case 'n':
        return literal("ull", 3, JCTokenTypeNull);
    case '"':
        return readScalarToken(state, at, true);
    case '-':
    case '0':
    case '1':
    case '2':
    case '3':
    case '4':
    case '5':
    case '6':
    case '7':
    case '8':
    case '9':
        return readScalarToken(state, at, false);
    default:
        jc_error(state, unexpectedTokenMessage);
        return false;
    }
    ++state->atIndex;
    return true;
}

// The tokenizer as the collections call it: the structural tokens that make
// up half of a document (after plain white space, when the options give no
// other meaning to it) are read here without a call; the rest, and every
// error, go through jc_parse_next_token.
inline bool JCParser::nextToken(JCParseState* state)
{
    static constexpr auto structural = [] {
        std::array<uint8_t, 256> types {};
        types['{'] = JCTokenTypeObjectBegin;
        types['}'] = JCTokenTypeObjectEnd;
        types['['] = JCTokenTypeArrayBegin;
        types[']'] = JCTokenTypeArrayEnd;
        types[':'] = JCTokenTypeSeparator;
        types[','] = JCTokenTypeComma;
        return types;
    }();
    const uint8_t* bytes = state->stringBytes;
    size_t at = state->atIndex;
    size_t length = state->stringLength;
    if (at >= length)
        return jc_parse_next_token(state);
    uint8_t c = bytes[at];
    if (c == ' ' || c == '\n' || c == '\t' || c == '\r') {
        if (state->parseOptionFlags & (JCParseOptionComments | JCParseOptionUnicodeNewlines))
            return jc_parse_next_token(state);
        at = skipWhiteSpace(bytes, at, length);
        state->atIndex = at;
        if (at >= length)
            return jc_parse_next_token(state);
        c = bytes[at];
    }
    auto& token = state->token;
    if (uint8_t type = structural[c]) {
        token.type = type;
        token.value.cacheItem = nullptr;
        token.tokenPtrRange = { bytes + at, 1 };
        state->atIndex = at + 1;
        return true;
    }
    if (c == '"' || c == '-' || (c >= '0' && c <= '9')) {
        token.type = JCTokenTypeInvalid;
        token.value.cacheItem = nullptr;
        return readScalarToken(state, bytes + at, c == '"');
    }
    return jc_parse_next_token(state);
}

// A string or a number token starting at `at` (the current index).
inline bool JCParser::readScalarToken(JCParseState* state, const uint8_t* at, bool isString)
{
    auto& token = state->token;
    token.tokenPtrRange = { at, 1 };
    if (isString ? jc_parse_string(state) : jc_parse_number(state)) {
        token.type = isString ? JCTokenTypeString : JCTokenTypeNumber;
        return true;
    }
    jc_error(state, unexpectedTokenMessage);
    return false;
}

// MARK: Strings

bool JCParser::jc_parse_string(JCParseState* state)
{
    const uint8_t* bytes = state->stringBytes;
    const uint8_t* start = bytes + state->atIndex;
    const uint8_t* end = bytes + state->stringLength;
    const uint8_t* at = start + 1;
    uint64_t hash = JCHashSeed;
    auto& token = state->token;

    auto finish = [&](const uint8_t* closingQuote, const uint8_t* valueBytes, size_t valueLength) {
        token.value.ptrRange = { valueBytes, valueLength };
        token.value.type = JCValueTypeString;
        token.value.hash = hash;
        token.tokenPtrRange = { start, static_cast<size_t>(closingQuote + 1 - start) };
        state->atIndex = closingQuote + 1 - bytes;
        return true;
    };
    auto fail = [&](const uint8_t* where) {
        state->atIndex = where - bytes;
        jc_error(state, "Invalid string.");
        return false;
    };

    // Fast path: no escapes and well-formed UTF-8, so the value is the input itself.
    while (true) {
        const uint8_t* run = at;
        at = skipPlainStringBytes(at, end, true);
        hash = hashRun(hash, run, at);
        if (at >= end)
            return fail(end);
        uint8_t c = *at;
        if (c == '"')
            return finish(at, start + 1, at - start - 1);
        if (c == '\\')
            break;
        if (c < 0x20) {
            state->atIndex = at - bytes;
            jc_error(state, "Invalid character < 0x20 found in string: 0x%2.2x.", c);
            return fail(at);
        }
        const uint8_t* next = skipMultibyteUTF8(at, end);
        if (next == at)
            break; // a sequence the slow path refuses or replaces
        hash = hashRun(hash, at, next);
        at = next;
    }

    // Slow path: decode into the token buffer.
    size_t used = at - (start + 1);
    if (!growTokenBuffer(state, used))
        goto bufferFailure;
    memcpy(state->tokenBuffer.bytes, start + 1, used);
    while (at < end) {
        const uint8_t* run = at;
        at = skipPlainStringBytes(at, end, true);
        if (at > run) {
            if (!growTokenBuffer(state, used + (at - run) + 4))
                goto bufferFailure;
            memcpy(state->tokenBuffer.bytes + used, run, at - run);
            used += at - run;
            hash = hashRun(hash, run, at);
            if (at >= end)
                break;
        }
        if (!growTokenBuffer(state, used + 4))
            goto bufferFailure;
        uint8_t* out = state->tokenBuffer.bytes;
        uint8_t c = *at;
        if (c == '"')
            return finish(at, state->tokenBuffer.bytes, used);
        if (c < 0x20) {
            state->atIndex = at - bytes;
            jc_error(state, "Invalid character < 0x20 found in string: 0x%2.2x.", c);
            return fail(at);
        }
        if (c < 0x80 && c != '\\') {
            out[used++] = c;
            hash = hash * 33 + c;
            ++at;
            continue;
        }
        uint32_t codePoint;
        if (c >= 0x80) {
            if (const uint8_t* runEnd = skipMultibyteUTF8(at, end); runEnd != at) {
                if (!growTokenBuffer(state, used + (runEnd - at) + 4))
                    goto bufferFailure;
                memcpy(state->tokenBuffer.bytes + used, at, runEnd - at);
                used += runEnd - at;
                hash = hashRun(hash, at, runEnd);
                at = runEnd;
                continue;
            }
            const uint8_t* next;
            auto result = ConvertSingleCodePointInUTF8(at, end, &next, &codePoint);
            if (!(state->parseOptionFlags & JCParseOptionLooseUnicode)) {
                state->atIndex = at - bytes;
                if (result == ConversionResult::sourceExhausted)
                    jc_error(state, "End of buffer reached while parsing UTF8 in \"\" string.");
                else
                    jc_error(state, "Illegal UTF8 sequence found in \"\" string.");
                return fail(at);
            }
            codePoint = 0xFFFD;
            at = result == ConversionResult::sourceExhausted ? end : next;
        } else {
            // An escape.
            if (at + 1 >= end)
                return fail(end);
            uint8_t escaped = at[1];
            uint8_t simple = 0;
            switch (escaped) {
            case '"':
                simple = 0x22;
                break;
            case '\\':
                simple = 0x5C;
                break;
            case '/':
                simple = 0x2F;
                break;
            case 'b':
                simple = 0x08;
                break;
            case 'f':
                simple = 0x0C;
                break;
            case 'n':
                simple = 0x0A;
                break;
            case 'r':
                simple = 0x0D;
                break;
            case 't':
                simple = 0x09;
                break;
            case 'u':
                break;
            default:
                state->atIndex = at + 1 - bytes;
                jc_error(state, "Invalid escape sequence found in \"\" string.");
                return fail(at + 1);
            }
            if (simple) {
                out[used++] = simple;
                hash = hash * 33 + simple;
                at += 2;
                continue;
            }
            // Four hex digits at `digits`; answers -1 after recording an error, -2 at the end of input.
            auto readHex = [&](const uint8_t* digits) -> long {
                uint32_t value = 0;
                for (int i = 0; i < 4; ++i) {
                    if (digits + i >= end)
                        return -2;
                    uint8_t d = digits[i];
                    uint32_t nibble;
                    if (d >= '0' && d <= '9')
                        nibble = d - '0';
                    else if (d >= 'a' && d <= 'f')
                        nibble = d - 'a' + 10;
                    else if (d >= 'A' && d <= 'F')
                        nibble = d - 'A' + 10;
                    else {
                        state->atIndex = digits + i - bytes;
                        jc_error(state, "Unexpected character found in \\u Unicode escape sequence.  Found '%c', expected [0-9a-fA-F].", d);
                        return -1;
                    }
                    value = (value << 4) | nibble;
                }
                return value;
            };
            bool loose = state->parseOptionFlags & JCParseOptionLooseUnicode;
            long first = readHex(at + 2);
            if (first < 0)
                return fail(first == -2 ? end : at);
            at += 6;
            codePoint = static_cast<uint32_t>(first);
            bool illegal = false;
            if (codePoint >= 0xD800 && codePoint <= 0xDBFF) {
                if (at + 1 < end && at[0] == '\\' && at[1] == 'u') {
                    long second = readHex(at + 2);
                    if (second < 0)
                        return fail(second == -2 ? end : at);
                    if (second >= 0xDC00 && second <= 0xDFFF) {
                        codePoint = (codePoint - 0xD800) * 0x400 + (static_cast<uint32_t>(second) - 0xDC00) + 0x10000;
                        at += 6;
                    } else if (!loose) {
                        state->atIndex = at - bytes;
                        jc_error(state, "Illegal \\u Unicode escape sequence.");
                        return fail(at);
                    } else
                        illegal = true; // the second escape is read on its own next
                } else if (!loose) {
                    state->atIndex = at - bytes;
                    jc_error(state, "Required a second \\u Unicode escape sequence following a surrogate \\u Unicode escape sequence.");
                    return fail(at);
                } else
                    illegal = true;
            } else if (codePoint >= 0xDC00 && codePoint <= 0xDFFF)
                illegal = true;
            if (codePoint == 0 || (codePoint >= 0xFDD0 && codePoint <= 0xFDEF) || (codePoint & 0xFFFE) == 0xFFFE)
                illegal = true;
            if (illegal) {
                if (!loose) {
                    state->atIndex = at - bytes;
                    jc_error(state, "Illegal \\u Unicode escape sequence.");
                    return fail(at);
                }
                codePoint = 0xFFFD;
            }
        }
        uint8_t encoded[4];
        size_t n = encodeUTF8(codePoint, encoded);
        for (size_t i = 0; i < n; ++i) {
            out[used++] = encoded[i];
            hash = hash * 33 + encoded[i];
        }
    }
    return fail(end);

bufferFailure:
    jc_error(state, "Internal error: Unable to add UTF8 sequence to internal string buffer. %@ line #%ld", sourcePath, static_cast<long>(__LINE__));
    return fail(at);
}

// MARK: Numbers

namespace {

// The double nearest to mantissa × 10^exponent, as the float conversion
// finds it for a decimal of at most 19 digits: exact arithmetic when both
// parts fit (and rounding is to nearest), the 128-bit product otherwise.
// Answers false for the rare inputs that need the digits themselves.
inline bool convertDecimal(uint64_t mantissa, int64_t exponent, bool negative, double& value)
{
    using Format = fast_float::binary_format<double>;
    if (exponent >= Format::min_exponent_fast_path() && exponent <= Format::max_exponent_fast_path()
        && mantissa <= Format::max_mantissa_fast_path() && fast_float::detail::rounds_to_nearest()) {
        value = static_cast<double>(mantissa);
        value = exponent < 0 ? value / Format::exact_power_of_ten(-exponent) : value * Format::exact_power_of_ten(exponent);
        if (negative)
            value = -value;
        return true;
    }
    fast_float::adjusted_mantissa adjusted = fast_float::compute_float<Format>(exponent, mantissa);
    if (adjusted.power2 < 0)
        return false;
    fast_float::to_float(negative, adjusted, value);
    return true;
}

} // namespace


bool JCParser::jc_parse_number(JCParseState* state)
{
    const uint8_t* bytes = state->stringBytes;
    const uint8_t* start = bytes + state->atIndex;
    const uint8_t* end = bytes + state->stringLength;
    const uint8_t* at = start;
    bool isFloatingPoint = false;
    auto isDigit = [](uint8_t c) { return c >= '0' && c <= '9'; };
    auto invalid = [&](const uint8_t* where) {
        state->atIndex = where - bytes;
        jc_error(state, "Invalid number.");
        return false;
    };

    // Most numbers are short integers: read them at once. Anything else (a
    // fraction, an exponent, -0, 19 digits or more, the end of the input) goes
    // through the state machine below.
    {
        const uint8_t* digits = start + (*start == '-');
        const uint8_t* after = digits;
        // The digits' value, read eight at a time while there are eight; it
        // wraps past 19 digits, which only the general way reads.
        uint64_t magnitude = 0;
        if (after < end && *after == '0')
            ++after;
        else {
            while (end - after >= 8 && fast_float::is_made_of_eight_digits_fast(reinterpret_cast<const char*>(after))) {
                magnitude = magnitude * 100000000 + fast_float::parse_eight_digits_unrolled(reinterpret_cast<const char*>(after));
                after += 8;
            }
            while (after < end && isDigit(*after))
                magnitude = magnitude * 10 + (*after++ - '0');
        }
        size_t count = after - digits;
        bool negative = *start == '-';
        if (count && count <= 18 && after < end && *after != '.' && *after != 'e' && *after != 'E' && !(negative && *digits == '0')) {
            auto& value = state->token.value;
            if (negative) {
                value.type = JCValueTypeLongLong;
                value.number.longLongValue = -static_cast<long long>(magnitude);
                value.hash = JCHashSeed + JCValueTypeLongLong + static_cast<uint64_t>(value.number.longLongValue);
            } else {
                value.type = JCValueTypeUnsignedLongLong;
                value.number.unsignedLongLongValue = magnitude;
                value.hash = JCHashSeed + JCValueTypeUnsignedLongLong + magnitude;
            }
            value.ptrRange = { reinterpret_cast<const uint8_t*>(&value.number), sizeof(value.number) };
            value.hash = hashRun(value.hash, value.ptrRange.ptr, value.ptrRange.ptr + sizeof(value.number));
            state->token.tokenPtrRange = { start, static_cast<size_t>(after - start) };
            state->atIndex = after - bytes;
            return true;
        }
        // A plain fraction of at most 19 digits in all (coordinates, prices):
        // its digits read once, into the mantissa that the conversion below
        // would read them into again. Exponents, longer runs, results that are
        // not normal and the end of the input take the general way.
        if (count && count <= 19 && after < end && *after == '.') {
            uint64_t mantissa = magnitude;
            const uint8_t* fraction = after + 1;
            const uint8_t* stop = fraction;
            // Eight digits at a time while there are eight; a run too long
            // to fit wraps the mantissa, and is then left to the general way.
            auto* chars = reinterpret_cast<const char*>(stop);
            while (end - stop >= 8 && stop - fraction <= 19 && fast_float::is_made_of_eight_digits_fast(chars)) {
                mantissa = mantissa * 100000000 + fast_float::parse_eight_digits_unrolled(chars);
                stop += 8;
                chars += 8;
            }
            while (stop < end && isDigit(*stop) && stop - fraction <= 19)
                mantissa = mantissa * 10 + (*stop++ - '0');
            size_t fractionDigits = stop - fraction;
            if (fractionDigits && count + fractionDigits <= 19 && stop < end && *stop != 'e' && *stop != 'E') {
                double result;
                if (convertDecimal(mantissa, -static_cast<int64_t>(fractionDigits), negative, result) && std::fpclassify(result) == FP_NORMAL) {
                    auto& value = state->token.value;
                    value.type = JCValueTypeDouble;
                    value.number.doubleValue = result;
                    value.ptrRange = { reinterpret_cast<const uint8_t*>(&value.number), sizeof(value.number) };
                    value.hash = hashRun(JCHashSeed + JCValueTypeDouble, value.ptrRange.ptr, value.ptrRange.ptr + sizeof(value.number));
                    state->token.tokenPtrRange = { start, static_cast<size_t>(stop - start) };
                    state->atIndex = stop - bytes;
                    return true;
                }
            }
        }
    }

    // The grammar, straight: optional minus, 0 or a digit run not starting
    // with 0, optional fraction, optional exponent. A missing digit, or the
    // end of the input where a digit is due, is an invalid number there; the
    // first byte that cannot continue ends the number unconsumed.
    if (*at == '-')
        ++at;
    if (at >= end || !isDigit(*at))
        return invalid(at);
    if (*at == '0')
        ++at; // a digit after a leading zero starts the next token
    else {
        while (at < end && isDigit(*at))
            ++at;
    }
    if (at < end && *at == '.') {
        isFloatingPoint = true;
        ++at;
        if (at >= end || !isDigit(*at))
            return invalid(at);
        while (at < end && isDigit(*at))
            ++at;
    }
    if (at < end && (*at == 'e' || *at == 'E')) {
        isFloatingPoint = true;
        ++at;
        if (at < end && (*at == '+' || *at == '-'))
            ++at;
        if (at >= end || !isDigit(*at))
            return invalid(at);
        while (at < end && isDigit(*at))
            ++at;
    }

    size_t length = at - start;
    auto& value = state->token.value;
    std::string_view text(reinterpret_cast<const char*>(start), length);
    if (length == 2 && start[0] == '-' && start[1] == '0')
        isFloatingPoint = true; // keeps negative zero
    state->atIndex = at - bytes;
    auto numberError = [&]() {
        state->atIndex = start - bytes;
        return false;
    };

    if (isFloatingPoint) {
        double result = 0;
        auto answer = fast_float::from_chars(text.data(), text.data() + text.size(), result);
        // fast_float and strtod agree on every normal result; the rest (zero,
        // subnormal, out of range) goes through strtod for its errno.
        if (answer.ec != std::errc() || answer.ptr != text.data() + text.size() || std::fpclassify(result) != FP_NORMAL) {
            char scratch[512];
            std::string heapScratch;
            char* terminated = scratch;
            if (length + 1 > sizeof(scratch)) {
                heapScratch.assign(text);
                terminated = heapScratch.data();
            } else {
                memcpy(scratch, text.data(), length);
                scratch[length] = 0;
            }
            char* stop = nullptr;
            errno = 0;
            result = detail::strtodC(terminated, &stop);
            if (errno == ERANGE) {
                jc_error(state, "The value '%s' could not be represented as a 'double' due to %s.", text, result == 0.0 ? "underflow" : "overflow");
                jc_error(state, "Invalid number.");
                return numberError();
            }
            if (errno) {
                jc_error(state, "Invalid number.");
                return numberError();
            }
            if (stop != terminated + length) {
                jc_error(state, "The conversion function did not consume all of the number tokens characters.");
                jc_error(state, "Invalid number.");
                return numberError();
            }
        }
        value.type = JCValueTypeDouble;
        value.number.doubleValue = result;
        value.hash = JCHashSeed + JCValueTypeDouble;
    } else if (start[0] == '-') {
        uint64_t magnitude = 0;
        bool overflow = false;
        for (size_t i = 1; i < length; ++i) {
            uint64_t digit = start[i] - '0';
            if (magnitude > (9223372036854775808ull - digit) / 10) {
                overflow = true;
                break;
            }
            magnitude = magnitude * 10 + digit;
        }
        if (overflow) {
            jc_error(state, "The value '%s' exceeded the minimum value that could be represented: %lld.", text, LLONG_MIN);
            jc_error(state, "Invalid number.");
            return numberError();
        }
        value.type = JCValueTypeLongLong;
        value.number.longLongValue = static_cast<long long>(0 - magnitude);
        value.hash = JCHashSeed + JCValueTypeLongLong + static_cast<uint64_t>(value.number.longLongValue);
    } else {
        uint64_t result = 0;
        bool overflow = false;
        for (size_t i = 0; i < length; ++i) {
            uint64_t digit = start[i] - '0';
            if (result > (UINT64_MAX - digit) / 10) {
                overflow = true;
                break;
            }
            result = result * 10 + digit;
        }
        if (overflow) {
            jc_error(state, "The value '%s' exceeded the maximum value that could be represented: %llu.", text, ULLONG_MAX);
            jc_error(state, "Invalid number.");
            return numberError();
        }
        value.type = JCValueTypeUnsignedLongLong;
        value.number.unsignedLongLongValue = result;
        value.hash = JCHashSeed + JCValueTypeUnsignedLongLong + result;
    }
    value.ptrRange = { reinterpret_cast<const uint8_t*>(&value.number), sizeof(value.number) };
    value.hash = hashRun(value.hash, value.ptrRange.ptr, value.ptrRange.ptr + sizeof(value.number));
    state->token.tokenPtrRange = { start, length };
    return true;
}

// MARK: The object cache

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

// MARK: Building objects

Object* JCParser::jc_object_for_token(JCParseState* state)
{
    switch (state->token.type) {
    case JCTokenTypeNumber:
    case JCTokenTypeString:
        return jc_cachedObjects(state);
    case JCTokenTypeTrue:
        Number::trueValue().ref();
        return &Number::trueValue();
    case JCTokenTypeFalse:
        Number::falseValue().ref();
        return &Number::falseValue();
    case JCTokenTypeNull:
        Null::null().ref();
        return &Null::null();
    case JCTokenTypeArrayBegin:
    case JCTokenTypeObjectBegin: {
        if (state->depth >= maximumDepth) {
            jc_error(state, "Nesting is deeper than %zu levels.", maximumDepth);
            return nullptr;
        }
        ++state->depth;
        Object* object = state->token.type == JCTokenTypeArrayBegin ? jc_parse_array(state) : jc_parse_dictionary(state);
        --state->depth;
        return object;
    }
    default:
        return nullptr;
    }
}

Object* JCParser::jc_parse_array(JCParseState* state)
{
    auto& stack = state->objectStack;
    size_t startingObjectIndex = stack.index;
    int acceptMask = JCAcceptValue | JCAcceptEnd;
    Object* parsedArray = nullptr;

    while (!state->error && state->atIndex < state->stringLength) {
        if (stack.index > stack.count - 4
            && !jc_objectStack_makeRoom(state, "Internal error: [array] objectsIndex > %zu, resize failed? %@ line %#ld", __LINE__))
            break;
        if (!nextToken(state))
            break;
        uint8_t type = state->token.type;
        if (isValueToken(type)) {
            if (!(acceptMask & JCAcceptValue)) {
                jc_error(state, "Unexpected value.");
                break;
            }
            Object* object = objectForValueToken(state);
            if (!object) {
                jc_error(state, "Internal error: Object == NULL");
                break;
            }
            stack.objects[stack.index++] = object;
            acceptMask = JCAcceptComma | JCAcceptEnd;
        } else if (type == JCTokenTypeComma) {
            if (!(acceptMask & JCAcceptComma)) {
                jc_error(state, "Unexpected ','.");
                break;
            }
            acceptMask = JCAcceptValue;
        } else if (type == JCTokenTypeArrayEnd) {
            if (!(acceptMask & JCAcceptEnd)) {
                jc_error(state, "Unexpected ']'.");
                break;
            }
            parsedArray = JCArrayFactory::JCArrayCreate(stack.objects + startingObjectIndex, stack.index - startingObjectIndex, state->mutableCollections);
            break;
        } else {
            jc_error_parse_accept_or3(state, acceptMask, "a value", "a ']'");
            break;
        }
    }

    if (!parsedArray) {
        state->cache.applyPendingRefs();
        for (size_t i = startingObjectIndex; i < stack.index; ++i) {
            if (stack.objects[i])
                stack.objects[i]->deref();
        }
    }
    for (size_t i = startingObjectIndex; i < stack.index; ++i)
        stack.objects[i] = nullptr;
    stack.index = startingObjectIndex;
    return parsedArray;
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

Object* JCParser::jc_parse_dictionary(JCParseState* state)
{
    auto& stack = state->objectStack;
    auto& cache = state->cache;
    size_t startingObjectIndex = stack.index;
    int acceptMask = JCAcceptValue | JCAcceptEnd;
    Object* parsedDictionary = nullptr;
    bool plainWhiteSpace = !(state->parseOptionFlags & (JCParseOptionComments | JCParseOptionUnicodeNewlines));
    uint16_t* predictedNext = &cache.firstKey[state->depth & (JCTokenCache::predictedDepths - 1)];
    uint16_t unpredictable; // follows a key the cache does not hold

    while (!state->error && state->atIndex < state->stringLength) {
        if (stack.index > stack.count - 4
            && !jc_objectStack_makeRoom(state, "Internal error: [dictionary] objectsIndex > %zu, resize failed? %@ line #%ld", __LINE__))
            break;
        Object* key = nullptr;
        if ((acceptMask & JCAcceptValue) && plainWhiteSpace) {
            size_t at = skipWhiteSpace(state->stringBytes, state->atIndex, state->stringLength);
            state->atIndex = at;
            if (at < state->stringLength && state->stringBytes[at] == '"')
                key = predictedString(state, at, *predictedNext);
        }
        if (!key && !nextToken(state))
            break;
        uint8_t type = state->token.type;
        if (type == JCTokenTypeString) {
            if (!(acceptMask & JCAcceptValue)) {
                jc_error(state, "Unexpected string.");
                break;
            }
            if (!key && !(key = jc_cachedObjects(state))) {
                jc_error(state, "Internal error: Key == NULL.");
                break;
            }
            size_t keyHash;
            if (auto* item = state->token.value.cacheItem) {
                if (!item->keyHash)
                    item->keyHash = key->hash();
                keyHash = item->keyHash;
                auto keyBucket = static_cast<uint16_t>(item - cache.items);
                *predictedNext = keyBucket;
                predictedNext = &cache.nextKey[keyBucket];
            } else {
                keyHash = key->hash();
                *predictedNext = JCTokenCache::noBucket;
                unpredictable = JCTokenCache::noBucket;
                predictedNext = &unpredictable;
            }
            // The key joins the stack only with its value: a nested collection
            // builds itself in the slots from stack.index on.
            if (!nextToken(state) || state->token.type != JCTokenTypeSeparator) {
                jc_error(state, "Expected ':'.");
                state->cache.applyPendingRefs();
                key->deref();
                break;
            }
            Object* object = nullptr;
            if (nextToken(state)) {
                if (!isValueToken(state->token.type))
                    jc_error_parse_accept_or3(state, JCAcceptValue, "a value", "a '}'");
                else if (!(object = objectForValueToken(state)))
                    jc_error(state, "Internal error: Object == NULL.");
            }
            if (!object) {
                state->cache.applyPendingRefs();
                key->deref();
                break;
            }
            stack.keys[stack.index] = key;
            stack.cfHashes[stack.index] = keyHash;
            stack.objects[stack.index++] = object;
            acceptMask = JCAcceptComma | JCAcceptEnd;
        } else if (type == JCTokenTypeComma) {
            if (!(acceptMask & JCAcceptComma)) {
                jc_error(state, "Unexpected ','.");
                break;
            }
            acceptMask = JCAcceptValue;
        } else if (type == JCTokenTypeObjectEnd) {
            if (!(acceptMask & JCAcceptEnd)) {
                jc_error(state, "Unexpected '}'.");
                break;
            }
            // A repeated key releases the earlier pair: count the cache's pending references first.
            JCReleaseHook applyPending { [](void* cache) { static_cast<JCTokenCache*>(cache)->applyPendingRefs(); }, &state->cache };
            parsedDictionary = JCDictionaryFactory::JCDictionaryCreate(stack.keys + startingObjectIndex, stack.cfHashes + startingObjectIndex,
                stack.objects + startingObjectIndex, stack.index - startingObjectIndex, state->mutableCollections, applyPending);
            break;
        } else {
            jc_error_parse_accept_or3(state, acceptMask, "a \"STRING\"", "a '}'");
            break;
        }
    }

    if (!parsedDictionary) {
        state->cache.applyPendingRefs();
        for (size_t i = startingObjectIndex; i < stack.index; ++i) {
            if (stack.keys[i])
                stack.keys[i]->deref();
            if (stack.objects[i])
                stack.objects[i]->deref();
        }
    }
    for (size_t i = startingObjectIndex; i < stack.index; ++i) {
        stack.keys[i] = nullptr;
        stack.objects[i] = nullptr;
        stack.cfHashes[i] = 0;
    }
    stack.index = startingObjectIndex;
    return parsedDictionary;
}

// MARK: One parse

Object* JCParser::json_parse_it(JCParseState* state)
{
    Object* parsed = nullptr;
    while (!state->error && state->atIndex < state->stringLength) {
        if (!jc_parse_next_token(state))
            break;
        if (state->token.type != JCTokenTypeArrayBegin && state->token.type != JCTokenTypeObjectBegin) {
            jc_error(state, "Expected either '[' or '{'.");
            break;
        }
        parsed = jc_object_for_token(state);
        break;
    }
    return parsed;
}

Object* JCParser::JCParseUTF8String(JCParseState* parseState, bool mutableCollections, const uint8_t* string, size_t length, RefPtr<Error>* error)
{
    VXParameterAssert((parseState != NULL) && (string != NULL) && (parseState->cache.prng_lfsr != 0U));
    auto* state = parseState;
    state->stringBytes = string;
    state->stringLength = length;
    state->atIndex = 0;
    state->error = nullptr;
    state->mutableCollections = mutableCollections;
    state->depth = 0;

    uint8_t stackTokenBuffer[2048];
    Object* stackObjects[1024];
    Object* stackKeys[1024];
    size_t stackHashes[1024];
    state->tokenBuffer.setToStackBuffer(stackTokenBuffer, sizeof(stackTokenBuffer));
    jc_objectStack_setToStackBuffer(&state->objectStack, stackObjects, stackKeys, stackHashes, 1024);

    // Blocks that a freed earlier tree left on the lists and that this parse
    // does not need go back to the system allocator at its end.
    markSmallObjectLists();
    state->cache.beginParse();
    // Whatever way the parse ends (an exception included), the references
    // that its cache hits handed out are counted before it returns.
    struct ApplyPendingRefs {
        JCTokenCache& cache;
        ~ApplyPendingRefs() { cache.endParse(); }
    } applyPendingRefs { state->cache };
    Object* parsed = json_parse_it(state);
    if (parsed && state->atIndex < state->stringLength) {
        jc_parse_skip_whitespace(state);
        if (state->atIndex < state->stringLength && !(state->parseOptionFlags & JCParseOptionPermitTextAfterValidJSON)) {
            jc_error(state, "A valid JSON object was parsed but there were additional non-white-space characters remaining.");
            state->cache.applyPendingRefs();
            parsed->deref();
            parsed = nullptr;
        }
    } else if (!parsed) {
        if (state->atIndex >= state->stringLength)
            jc_error(state, "Reached the end of the buffer.");
        jc_error(state, "Unable to parse JSON.");
    }

    if (error)
        *error = state->error;
    state->tokenBuffer.release();
    jc_objectStack_release(&state->objectStack);
    state->objectStack.roundSizeUpToMultipleOf = 2048;
    state->tokenBuffer.roundSizeUpToMultipleOf = 4096;
    state->stringBytes = nullptr;
    state->stringLength = 0;
    state->atIndex = 0;
    state->token = JCParseToken {};
    state->error = nullptr;
    state->mutableCollections = false;
    trimSmallObjectLists();
    return parsed;
}

} // namespace detail

// MARK: JSONDecoder

JSONDecoder::JSONDecoder(JCParseOptionFlags options)
    : m_parseState(std::make_unique<detail::JCParseState>())
{
    auto& state = *m_parseState;
    state.parseOptionFlags = options;
    state.tokenBuffer.roundSizeUpToMultipleOf = 4096;
    state.objectStack.roundSizeUpToMultipleOf = 2048;
    state.cache.prng_lfsr = 1;
    state.cache.count = detail::JCCacheBuckets;
    state.cache.items = detail::allocateBuckets(state.cache.count);
    state.cache.age = static_cast<uint8_t*>(calloc(state.cache.count, 1));
    state.cache.pending = static_cast<uint16_t*>(calloc(state.cache.count, sizeof(uint16_t)));
    if (!state.cache.items || !state.cache.age || !state.cache.pending)
        throw std::bad_alloc();
}

JSONDecoder::~JSONDecoder() = default;

Ref<JSONDecoder> JSONDecoder::decoderWithParseOptions(JCParseOptionFlags options)
{
    if (options > JCParseOptionValidFlags)
        Exception::raise(InvalidArgumentException, "Invalid parse options.");
    return adoptRef(*new JSONDecoder(options));
}

JCParseOptionFlags JSONDecoder::parseOptions() const
{
    return m_parseState ? m_parseState->parseOptionFlags : 0;
}

void JSONDecoder::clearCache()
{
    if (m_parseState)
        m_parseState->clearCache();
}

void JSONDecoder::releaseParseState()
{
    m_parseState = nullptr;
}

size_t JSONDecoder::cachedObjectCount() const
{
    if (!m_parseState)
        return 0;
    size_t count = 0;
    for (size_t i = 0; i < m_parseState->cache.count; ++i)
        count += m_parseState->cache.items[i].object != nullptr;
    return count;
}

RefPtr<Object> JSONDecoder::parse(const char* string, size_t length, bool mutableCollections, RefPtr<Error>* error)
{
    if (!m_parseState)
        Exception::raise(InternalInconsistencyException, "parseState is NULL.");
    if (!string)
        Exception::raise(InvalidArgumentException, "The string argument is NULL.");
    Ref protectedThis { *this };
    return adoptRef(detail::JCParser::JCParseUTF8String(m_parseState.get(), mutableCollections, reinterpret_cast<const uint8_t*>(string), length, error));
}

RefPtr<Object> JSONDecoder::objectWithUTF8String(const char* string, size_t length, RefPtr<Error>* error)
{
    return parse(string, length, false, error);
}

RefPtr<Object> JSONDecoder::mutableObjectWithUTF8String(const char* string, size_t length, RefPtr<Error>* error)
{
    return parse(string, length, true, error);
}

RefPtr<Object> JSONDecoder::objectWithData(const Data* jsonData, RefPtr<Error>* error)
{
    if (!m_parseState)
        Exception::raise(InternalInconsistencyException, "parseState is NULL.");
    if (!jsonData)
        Exception::raise(InvalidArgumentException, "The jsonData argument is NULL.");
    return parse(reinterpret_cast<const char*>(jsonData->bytes()), jsonData->length(), false, error);
}

RefPtr<Object> JSONDecoder::mutableObjectWithData(const Data* jsonData, RefPtr<Error>* error)
{
    if (!m_parseState)
        Exception::raise(InternalInconsistencyException, "parseState is NULL.");
    if (!jsonData)
        Exception::raise(InvalidArgumentException, "The jsonData argument is NULL.");
    return parse(reinterpret_cast<const char*>(jsonData->bytes()), jsonData->length(), true, error);
}

} // namespace velvox
