#pragma once

// The tokenizer's hot part: the white space skip and the token read that the
// array and dictionary loops call for every token. Inline here so that those
// loops (JCParseCollections.cpp) and the full tokenizer (JCTokens.cpp) both
// get it without a call.

#include "JCParser.h"

namespace velvox::detail {

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

} // namespace velvox::detail
