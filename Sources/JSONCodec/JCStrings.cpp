// JSON strings: the fast path that answers the input's own bytes, and the
// slow path that decodes escapes and ill-formed UTF-8 into the token buffer,
// both folding every byte of the value into the cache's hash.

#include "JCParser.h"

#include <cstring>

namespace velvox::detail {

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

} // namespace velvox::detail
