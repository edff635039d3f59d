// The public decoder: options, the parse state it owns, and the entry points
// that check their arguments and hand the text to the parser.

#include "JSONDecoder.h"

#include "JCParser.h"

#include <Platform/Exception.h>

#include <cstdlib>
#include <new>

namespace velvox {

VX_DEFINE_CLASS(JSONDecoder, Object)

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
