// The tokenizer: white space and comments, the 1-based line of a fault, the
// token read with every error it can report, and the accept-mask error of
// the collection loops. The per-token fast path is inline in JCTokens.h.

#include "JCTokens.h"

#include <algorithm>
#include <cstring>

namespace velvox::detail {

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

} // namespace velvox::detail
