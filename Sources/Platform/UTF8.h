#pragma once

// UTF-8 decoding shared by strings and the JSON codec.

#include <cstddef>
#include <cstdint>

namespace velvox {

enum class UTF8Result { ok,
    sourceExhausted,
    sourceIllegal };

// Decodes one UTF-8 sequence at `source`, refusing over-long forms, surrogates
// and values above U+10FFFF. On success `next` is just past the sequence; on
// an illegal sequence it is one byte on.
inline UTF8Result decodeUTF8(const uint8_t* source, const uint8_t* end, const uint8_t** next, uint32_t* codePoint)
{
    uint8_t lead = *source;
    *next = source + 1;
    if (lead < 0x80) {
        *codePoint = lead;
        return UTF8Result::ok;
    }
    size_t length;
    uint32_t value;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        value = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        value = lead & 0x0F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        value = lead & 0x07;
    } else
        return UTF8Result::sourceIllegal;
    for (size_t i = 1; i < length; ++i) {
        if (source + i >= end)
            return UTF8Result::sourceExhausted;
        uint8_t byte = source[i];
        if ((byte & 0xC0) != 0x80)
            return UTF8Result::sourceIllegal;
        value = (value << 6) | (byte & 0x3F);
    }
    if ((length == 3 && value < 0x800) || (length == 4 && value < 0x10000) || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        return UTF8Result::sourceIllegal;
    *next = source + length;
    *codePoint = value;
    return UTF8Result::ok;
}

// The end of the run of well-formed sequences of two to four bytes from `at`
// (by decodeUTF8's rules): it stops at an ASCII byte, at the end, or at the
// first sequence decodeUTF8 would refuse. Text in most scripts but Latin is
// such runs, and this walks them without decoding each code point.
inline const uint8_t* skipMultibyteUTF8(const uint8_t* at, const uint8_t* end)
{
    while (at < end) {
        uint8_t lead = at[0];
        if (lead < 0xC2)
            break; // ASCII, a continuation byte or an over-long lead
        if (lead <= 0xDF) {
            if (end - at < 2 || (at[1] & 0xC0) != 0x80)
                break;
            at += 2;
        } else if (lead <= 0xEF) {
            // E0 must not be over-long, ED must not reach the surrogates.
            uint8_t low = lead == 0xE0 ? 0xA0 : 0x80, high = lead == 0xED ? 0x9F : 0xBF;
            if (end - at < 3 || at[1] < low || at[1] > high || (at[2] & 0xC0) != 0x80)
                break;
            at += 3;
        } else if (lead <= 0xF4) {
            // F0 must not be over-long, F4 must stay within U+10FFFF.
            uint8_t low = lead == 0xF0 ? 0x90 : 0x80, high = lead == 0xF4 ? 0x8F : 0xBF;
            if (end - at < 4 || at[1] < low || at[1] > high || (at[2] & 0xC0) != 0x80 || (at[3] & 0xC0) != 0x80)
                break;
            at += 4;
        } else
            break;
    }
    return at;
}

// Writes a code point as 1 to 4 bytes; answers how many.
inline size_t encodeUTF8(uint32_t codePoint, uint8_t* out)
{
    if (codePoint < 0x80) {
        out[0] = static_cast<uint8_t>(codePoint);
        return 1;
    }
    if (codePoint < 0x800) {
        out[0] = static_cast<uint8_t>(0xC0 | (codePoint >> 6));
        out[1] = static_cast<uint8_t>(0x80 | (codePoint & 0x3F));
        return 2;
    }
    if (codePoint < 0x10000) {
        out[0] = static_cast<uint8_t>(0xE0 | (codePoint >> 12));
        out[1] = static_cast<uint8_t>(0x80 | ((codePoint >> 6) & 0x3F));
        out[2] = static_cast<uint8_t>(0x80 | (codePoint & 0x3F));
        return 3;
    }
    out[0] = static_cast<uint8_t>(0xF0 | (codePoint >> 18));
    out[1] = static_cast<uint8_t>(0x80 | ((codePoint >> 12) & 0x3F));
    out[2] = static_cast<uint8_t>(0x80 | ((codePoint >> 6) & 0x3F));
    out[3] = static_cast<uint8_t>(0x80 | (codePoint & 0x3F));
    return 4;
}

} // namespace velvox
