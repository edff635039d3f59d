#include "JSONEncoder.h"

#include "JCCollections.h"
#include "JCInternal.h"
#include "JSONDecoder.h"

#include <Platform/Collections.h>
#include <Platform/DoubleFormat.h>
#include <Platform/Exception.h>
#include <Platform/Number.h>
#include <Platform/String.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <new>
#include <utility>
#include <vector>

namespace velvox {

namespace detail {

namespace {

constexpr char sourcePath[] = "JSONCodec/JSONCodec";
constexpr size_t encodeCacheSlots = 1024;
constexpr size_t maximumDepth = 4096;

struct JCEncodeCache {
    const Object* object;
    size_t offset;
    size_t length;
};

struct JCEncodeState;
using WriteOne = bool (*)(JCEncodeState*, int depthChange, char character);

struct JCEncodeState {
    JCManagedBuffer stringBuffer;
    size_t atIndex { 0 };
    JCEncodeCache cache[encodeCacheSlots] {};
    JCSerializeOptionFlags serializeOptionFlags { 0 };
    long depth { 0 };
    size_t nesting { 0 };
    // The elements of the collections being written, one run per open level,
    // on the heap: a deep tree must not cost kilobytes of stack per level.
    std::vector<Object*> scratch;
    RefPtr<Error> error;
    WriteOne write1Slow { nullptr };
    bool pretty { false };

    // The single-character writer: the pretty one, or a plain store.
    bool write1(int depthChange, char character);
};

template<typename... Args>
bool jc_encode_error(JCEncodeState* state, std::string_view format, const Args&... args)
{
    if (!state->error)
        state->error = Error::create(JCErrorDomain, -1, String::format(format, args...)->view());
    return true;
}

// Makes room for `extra` more bytes beyond atIndex, growing by `ahead` when short.
inline bool ensure(JCEncodeState* state, size_t extra, size_t ahead)
{
    if (state->atIndex + extra <= state->stringBuffer.length) [[likely]]
        return true;
    if (!state->stringBuffer.resize(state->atIndex + extra + ahead)) {
        jc_encode_error(state, "Unable to resize temporary buffer.");
        return false;
    }
    return true;
}

inline bool jc_encode_write(JCEncodeState* state, const char* text, size_t length)
{
    if (!ensure(state, length + 16, 1024))
        return false;
    memcpy(state->stringBuffer.bytes + state->atIndex, text, length);
    state->atIndex += length;
    return true;
}

bool jc_encode_writePrettyPrintWhiteSpace(JCEncodeState* state)
{
    size_t indentation = 2 * static_cast<size_t>(state->depth < 0 ? 0 : state->depth);
    if (state->atIndex + indentation + 16 > state->stringBuffer.length && !state->stringBuffer.resize(state->atIndex + indentation + 4096)) {
        jc_encode_error(state, "Unable to resize temporary buffer.");
        return false;
    }
    uint8_t* out = state->stringBuffer.bytes + state->atIndex;
    *out++ = '\n';
    memset(out, ' ', indentation);
    state->atIndex += 1 + indentation;
    return true;
}

bool jc_encode_write1fast(JCEncodeState* state, int, char character)
{
    if (!ensure(state, 16, 1024))
        return false;
    state->stringBuffer.bytes[state->atIndex++] = static_cast<uint8_t>(character);
    return true;
}

inline bool JCEncodeState::write1(int depthChange, char character)
{
    if (pretty) [[unlikely]]
        return write1Slow(this, depthChange, character);
    if (atIndex + 16 > stringBuffer.length) [[unlikely]]
        return jc_encode_write1fast(this, depthChange, character);
    stringBuffer.bytes[atIndex++] = static_cast<uint8_t>(character);
    return true;
}

bool jc_encode_write1slow(JCEncodeState* state, int depthChange, char character)
{
    VXParameterAssert((depthChange >= -1) && (depthChange <= 1));
    state->depth += depthChange;
    if (character == ':')
        return jc_encode_write(state, ": ", 2);
    if (depthChange != -1) {
        if (!jc_encode_write1fast(state, 0, character))
            return false;
        return jc_encode_writePrettyPrintWhiteSpace(state);
    }
    if (!jc_encode_writePrettyPrintWhiteSpace(state))
        return false;
    return jc_encode_write1fast(state, 0, character);
}

inline size_t cacheSlot(const Object* object)
{
    auto address = reinterpret_cast<uintptr_t>(object);
    return ((address >> 4) + ((address >> 21) ^ (address >> 9))) & (encodeCacheSlots - 1);
}

inline void jc_encode_updateCache(JCEncodeState* state, size_t slot, size_t startingIndex, const Object* object)
{
    state->cache[slot] = { object, startingIndex, state->atIndex - startingIndex };
}

bool writeUnsigned(JCEncodeState* state, uint64_t value, bool negative)
{
    char scratch[24];
    char* end = scratch + sizeof(scratch);
    char* at = end;
    do {
        *--at = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value);
    if (negative)
        *--at = '-';
    return jc_encode_write(state, at, end - at);
}

bool encodeString(JCEncodeState* state, const String& string)
{
    const auto* bytes = reinterpret_cast<const uint8_t*>(string.view().data());
    size_t length = string.length();
    bool escapeUnicode = state->serializeOptionFlags & JCSerializeOptionEscapeUnicode;
    // The worst case is six bytes out per byte in, plus the quotes.
    if (!ensure(state, length * 6 + 16, 4096))
        return false;
    uint8_t* out = state->stringBuffer.bytes + state->atIndex;
    *out++ = '"';
    static const char hexDigits[] = "0123456789abcdef";
    auto writeU = [&](uint32_t unit) {
        *out++ = '\\';
        *out++ = 'u';
        *out++ = hexDigits[(unit >> 12) & 15];
        *out++ = hexDigits[(unit >> 8) & 15];
        *out++ = hexDigits[(unit >> 4) & 15];
        *out++ = hexDigits[unit & 15];
    };
    const uint8_t* end = bytes + length;
    for (const uint8_t* at = bytes; at < end;) {
        // Runs that need no escape go in one copy, found sixteen bytes at a time.
        if (const uint8_t* runEnd = skipPlainStringBytes(at, end, escapeUnicode); runEnd != at) {
            memcpy(out, at, runEnd - at);
            out += runEnd - at;
            at = runEnd;
            if (at == end)
                break;
        }
        uint8_t c = *at;
        if (c >= 0x20 && c != '"' && c != '\\' && c < 0x80) {
            *out++ = c;
            ++at;
            continue;
        }
        if (c >= 0x80) {
            if (!escapeUnicode) {
                *out++ = c;
                ++at;
                continue;
            }
            const uint8_t* next;
            uint32_t codePoint;
            if (ConvertSingleCodePointInUTF8(at, end, &next, &codePoint) != ConversionResult::ok) {
                state->atIndex = out - state->stringBuffer.bytes;
                jc_encode_error(state, "Error converting UTF8.");
                return false;
            }
            if (codePoint < 0x10000)
                writeU(codePoint);
            else {
                writeU((codePoint >> 10) + 0xD7C0);
                writeU((codePoint & 0x3FF) | 0xDC00);
            }
            at = next;
            continue;
        }
        *out++ = '\\';
        switch (c) {
        case '"':
        case '\\':
            *out++ = c;
            break;
        case 0x08:
            *out++ = 'b';
            break;
        case 0x09:
            *out++ = 't';
            break;
        case 0x0A:
            *out++ = 'n';
            break;
        case 0x0C:
            *out++ = 'f';
            break;
        case 0x0D:
            *out++ = 'r';
            break;
        default:
            --out;
            writeU(c);
            break;
        }
        ++at;
    }
    *out++ = '"';
    state->atIndex = out - state->stringBuffer.bytes;
    return true;
}

bool encodeNumber(JCEncodeState* state, const Number& number)
{
    if (&number == &Number::trueValue())
        return jc_encode_write(state, "true", 4);
    if (&number == &Number::falseValue())
        return jc_encode_write(state, "false", 5);
    switch (number.objCType()) {
    case 'B':
    case 'C':
    case 'I':
    case 'L':
    case 'Q':
    case 'S':
        return writeUnsigned(state, number.unsignedLongLongValue(), false);
    case 'c':
    case 'i':
    case 'l':
    case 'q':
    case 's': {
        int64_t value = number.integerValue();
        return writeUnsigned(state, value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value), value < 0);
    }
    case 'f':
    case 'd': {
        double value = number.doubleValue();
        if (!std::isfinite(value)) {
            jc_encode_error(state, "Floating point values must be finite.  JSON does not support NaN or Infinity.");
            return false;
        }
        // The %.17g text, whatever the locale, and much faster than printf.
        if (!ensure(state, double17BufferSize + 16, 1024))
            return false;
        char* start = reinterpret_cast<char*>(state->stringBuffer.bytes + state->atIndex);
        state->atIndex += formatDouble17(value, start) - start;
        return true;
    }
    case 0:
        jc_encode_error(state, "NSNumber conversion error, unknown type.  Type: '%s'", "");
        return false;
    default:
        jc_encode_error(state, "NSNumber conversion error, unknown type.  Type: '%c' / 0x%2.2x", number.objCType(),
            static_cast<unsigned>(static_cast<uint8_t>(number.objCType())));
        return false;
    }
}

bool jc_encode_add_atom_to_buffer(JCEncodeState* state, Object* object);

bool encodeArray(JCEncodeState* state, const Array& array)
{
    if (!state->write1(1, '['))
        return false;
    auto writeElement = [&](Object* element, size_t index) {
        if (index && !state->write1(0, ','))
            return false;
        return jc_encode_add_atom_to_buffer(state, element);
    };
    if (array.tag() == JCArray::s_tag) {
        // An immutable codec array: its elements stay where they are.
        auto& codecArray = static_cast<const JCArray&>(array);
        Object* const* elements = codecArray.objects();
        size_t count = codecArray.count();
        for (size_t i = 0; i < count; ++i) {
            // A tree's objects lie scattered: ask for the next ones early.
            if (i + 4 < count)
                __builtin_prefetch(elements[i + 4]);
            if (!writeElement(elements[i], i))
                return false;
        }
    } else if (size_t count = array.count(); count <= 1020) {
        // Indices, not pointers: a nested level may move the scratch storage.
        size_t base = state->scratch.size();
        state->scratch.resize(base + count);
        array.getObjects(state->scratch.data() + base, 0, count);
        for (size_t i = 0; i < count; ++i) {
            if (!writeElement(state->scratch[base + i], i))
                return false;
        }
        state->scratch.resize(base);
    } else {
        size_t index = 0;
        for (auto* element : array) {
            if (!writeElement(element, index++))
                return false;
        }
    }
    return state->write1(-1, ']');
}

bool encodeDictionary(JCEncodeState* state, const Dictionary& dictionary)
{
    if (!state->write1(1, '{'))
        return false;
    auto writePair = [&](Object* key, Object* object, size_t index) {
        if (index && !state->write1(0, ','))
            return false;
        if (key->tag() != ObjectTag::String && !is<String>(key)) {
            jc_encode_error(state, "Key must be a string object.");
            return false;
        }
        return jc_encode_add_atom_to_buffer(state, key) && state->write1(0, ':') && jc_encode_add_atom_to_buffer(state, object);
    };
    if (dictionary.tag() == JCDictionary::s_tag) {
        // An immutable codec dictionary: its table in enumeration order.
        auto& codecDictionary = static_cast<const JCDictionary&>(dictionary);
        const JCHashTableEntry* entries = codecDictionary.entries();
        size_t capacity = codecDictionary.capacity();
        size_t index = 0;
        for (size_t i = 0; i < capacity; ++i) {
            if (i + 16 < capacity)
                __builtin_prefetch(&entries[i + 16]);
            if (i + 4 < capacity && entries[i + 4].key)
                __builtin_prefetch(entries[i + 4].object);
            if (entries[i].key && !writePair(entries[i].key, entries[i].object, index++))
                return false;
        }
    } else {
        size_t index = 0;
        for (auto& entry : dictionary) {
            if (!writePair(entry.key, entry.object, index++))
                return false;
        }
    }
    return state->write1(-1, '}');
}

bool jc_encode_add_atom_to_buffer(JCEncodeState* state, Object* object)
{
    size_t slot = cacheSlot(object);
    auto& cached = state->cache[slot];
    if (cached.object == object && cached.offset + cached.length <= state->atIndex) {
        if (state->atIndex + cached.length + 256 > state->stringBuffer.length
            && !state->stringBuffer.resize(state->atIndex + cached.length + 1024)) {
            jc_encode_error(state, "Unable to resize temporary buffer.");
            return false;
        }
        uint8_t* buffer = state->stringBuffer.bytes;
        // Most repeats are short (numbers, keys): a fixed 16-byte copy needs no call. The
        // buffer has at least 256 bytes of room past atIndex, and the copied text lies before it.
        if (cached.length <= 16)
            memmove(buffer + state->atIndex, buffer + cached.offset, 16);
        else
            memcpy(buffer + state->atIndex, buffer + cached.offset, cached.length);
        state->atIndex += cached.length;
        return true;
    }
    size_t startingIndex = state->atIndex;
    bool ok;
    ObjectTag tag = object->tag();
    if (tag == ObjectTag::String)
        ok = encodeString(state, *static_cast<String*>(object));
    else if (tag == ObjectTag::Number)
        ok = encodeNumber(state, *static_cast<Number*>(object));
    else if (bool isDictionary = tag == JCDictionary::s_tag || (tag != JCArray::s_tag && is<Dictionary>(object));
             isDictionary || tag == JCArray::s_tag || is<Array>(object)) {
        // Bounded, so that a hostile tree cannot exhaust the stack.
        if (++state->nesting > maximumDepth) {
            jc_encode_error(state, "Nesting is deeper than %zu levels.", maximumDepth);
            return false;
        }
        if (isDictionary)
            ok = encodeDictionary(state, *static_cast<Dictionary*>(object));
        else
            ok = encodeArray(state, *static_cast<Array*>(object));
        --state->nesting;
    } else if (tag == ObjectTag::Null || is<Null>(object))
        ok = jc_encode_write(state, "null", 4);
    else if (is<String>(object))
        ok = encodeString(state, *static_cast<String*>(object));
    else if (is<Number>(object))
        ok = encodeNumber(state, *static_cast<Number*>(object));
    else {
        jc_encode_error(state, "Unable to serialize object class %@.", object->className());
        return false;
    }
    if (!ok)
        return false;
    if (state->atIndex > state->stringBuffer.length) {
        jc_encode_error(state, "Internal inconsistency error: atIndex > buffer length. %@ line #%ld", sourcePath, static_cast<long>(__LINE__));
        return false;
    }
    jc_encode_updateCache(state, slot, startingIndex, object);
    return true;
}

} // namespace

} // namespace detail

namespace detail {
namespace {

// What both entry points do first. Strings are UTF-8 already, so no
// conversion buffer is needed.
void prepare(JCEncodeState* state, const Object* object, JCSerializeOptionFlags options, RefPtr<Error>* error)
{
    VXParameterAssert(object != NULL);
    if (error)
        *error = nullptr;
    state->serializeOptionFlags = options;
    state->pretty = options & JCSerializeOptionPretty;
    state->write1Slow = jc_encode_write1slow;
    state->stringBuffer.roundSizeUpToMultipleOf = 32768;
}

} // namespace
} // namespace detail

RefPtr<Object> jc_encode(Object* object, JCSerializeOptionFlags options, int encodeAs, RefPtr<Error>* error)
{
    using namespace detail;
    JCEncodeState encodeState;
    auto* state = &encodeState;
    uint8_t stackBuffer[4096];
    prepare(state, object, options, error);
    state->stringBuffer.setToStackBuffer(stackBuffer, sizeof(stackBuffer));
    RefPtr<Object> result;
    if (jc_encode_add_atom_to_buffer(state, object)) {
        size_t length = state->atIndex;
        bool onHeap = state->stringBuffer.flags & JCManagedBuffer::JCManagedBufferOnHeap;
        if (encodeAs == JCEncodeAsData) {
            if (onHeap) {
                uint8_t* bytes = state->stringBuffer.take();
                void* shrunk = realloc(bytes, length ? length : 1);
                result = Data::adoptMallocedBytes(shrunk ? shrunk : bytes, length);
            } else
                result = Data::create(state->stringBuffer.bytes, length);
        } else if (encodeAs == JCEncodeAsString)
            result = String::create(reinterpret_cast<const char*>(state->stringBuffer.bytes), length);
        else
            jc_encode_error(state, "Unknown encode as type.");
    }
    if (error)
        *error = state->error;
    state->stringBuffer.release();
    return state->error ? nullptr : result;
}

JCEncodeBuffer::~JCEncodeBuffer()
{
    release();
}

JCEncodeBuffer::JCEncodeBuffer(JCEncodeBuffer&& other) noexcept
    : m_bytes(std::exchange(other.m_bytes, nullptr))
    , m_length(std::exchange(other.m_length, 0))
    , m_capacity(std::exchange(other.m_capacity, 0))
{
}

JCEncodeBuffer& JCEncodeBuffer::operator=(JCEncodeBuffer&& other) noexcept
{
    if (this != &other) {
        release();
        m_bytes = std::exchange(other.m_bytes, nullptr);
        m_length = std::exchange(other.m_length, 0);
        m_capacity = std::exchange(other.m_capacity, 0);
    }
    return *this;
}

void JCEncodeBuffer::release()
{
    free(m_bytes);
    m_bytes = nullptr;
    m_length = m_capacity = 0;
}

bool jc_encodeInto(Object* object, JCSerializeOptionFlags options, JCEncodeBuffer& buffer, RefPtr<Error>* error)
{
    using namespace detail;
    JCEncodeState encodeState;
    auto* state = &encodeState;
    uint8_t stackBuffer[4096];
    prepare(state, object, options, error);
    // The caller's memory, when it has some, is the buffer from the start;
    // growth reallocates it, and whatever it is at the end goes back.
    if (buffer.m_bytes) {
        state->stringBuffer.bytes = buffer.m_bytes;
        state->stringBuffer.length = buffer.m_capacity;
        state->stringBuffer.flags = JCManagedBuffer::JCManagedBufferOnHeap;
        buffer.m_bytes = nullptr;
        buffer.m_capacity = 0;
    } else
        state->stringBuffer.setToStackBuffer(stackBuffer, sizeof(stackBuffer));
    buffer.m_length = 0;

    bool ok = jc_encode_add_atom_to_buffer(state, object);
    if (error)
        *error = state->error;
    size_t length = state->atIndex;
    if (state->stringBuffer.flags & JCManagedBuffer::JCManagedBufferOnHeap) {
        buffer.m_capacity = state->stringBuffer.length;
        buffer.m_bytes = state->stringBuffer.take();
    } else if (ok) {
        // Output that fitted the stack: the buffer gets memory of its own.
        auto* bytes = static_cast<uint8_t*>(malloc(length ? length : 1));
        if (!bytes)
            throw std::bad_alloc();
        memcpy(bytes, state->stringBuffer.bytes, length);
        buffer.m_bytes = bytes;
        buffer.m_capacity = length ? length : 1;
    }
    state->stringBuffer.release();
    if (!ok || state->error)
        return false;
    buffer.m_length = length;
    return true;
}

} // namespace velvox
