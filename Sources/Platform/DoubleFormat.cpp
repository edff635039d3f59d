#include "DoubleFormat.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

namespace velvox::detail {

namespace {

char* formatExactly(double value, char* out)
{
    return std::to_chars(out, out + double17BufferSize, value, std::chars_format::general, 17).ptr;
}

// The fast path multiplies in x87 extended precision (64-bit significands):
// the seventeen digits come out of one product and one rounding.
constexpr bool haveExtendedPrecision = std::numeric_limits<long double>::digits >= 64;

constexpr int lowestPower = -300;
constexpr int highestPower = 345;

// 10^p for every p the scaling needs, each correctly rounded (strtold rounds
// exactly; texts without a decimal point read alike in every locale).
const long double* powersOfTen()
{
    static const long double* table = [] {
        auto* values = new long double[highestPower - lowestPower + 1];
        for (int p = lowestPower; p <= highestPower; ++p)
            values[p - lowestPower] = strtold(("1e" + std::to_string(p)).c_str(), nullptr);
        return values;
    }();
    return table;
}

const char digitPairs[] = "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
                          "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
                          "8081828384858687888990919293949596979899";

} // namespace

char* formatDouble17(double value, char* out)
{
    uint64_t bits;
    memcpy(&bits, &value, sizeof(bits));
    int biasedExponent = static_cast<int>((bits >> 52) & 0x7FF);
    // Zero and the subnormals (rare) take the exact road; so does everything
    // where extended precision is missing.
    if (!haveExtendedPrecision || !biasedExponent)
        return formatExactly(value, out);

    char* start = out;
    if (bits >> 63)
        *out++ = '-';
    long double magnitude = std::fabs(value);
    // floor(log10(2^e)) for the binary exponent: the decimal exponent or one less.
    int exponent = ((biasedExponent - 1023) * 78913) >> 18;
    const long double* powers = powersOfTen();
    long double scaled = magnitude * powers[16 - exponent - lowestPower];
    if (scaled >= 1e17L) {
        ++exponent;
        scaled = magnitude * powers[16 - exponent - lowestPower];
    }
    // Two roundings of 2^-64 each: the product is within 0.011 of the true
    // value (below 10^17). Only a fraction close to one half could round the
    // wrong way; those (about 3 %) go the exact road.
    // Rounding to nearest in the current mode is one instruction; truncation
    // would switch the x87 control word twice.
    long long nearest = __builtin_llrintl(scaled);
    long double offset = scaled - static_cast<long double>(nearest);
    if (offset > 0.485L || offset < -0.485L)
        return formatExactly(value, start);
    auto digits17 = static_cast<uint64_t>(nearest);
    if (digits17 >= 100000000000000000ull) {
        digits17 /= 10;
        ++exponent;
    }
    if (digits17 < 10000000000000000ull) // a product that fell short of 17 digits
        return formatExactly(value, start);

    // Nine digits and eight, each half in 32-bit arithmetic.
    char digits[18];
    {
        auto high = static_cast<uint32_t>(digits17 / 100000000);
        auto low = static_cast<uint32_t>(digits17 % 100000000);
        for (int i = 15; i >= 9; i -= 2) {
            memcpy(digits + i, digitPairs + 2 * (low % 100), 2);
            low /= 100;
        }
        for (int i = 7; i >= 1; i -= 2) {
            memcpy(digits + i, digitPairs + 2 * (high % 100), 2);
            high /= 100;
        }
        digits[0] = static_cast<char>('0' + high);
    }
    int last = 16;
    while (last > 0 && digits[last] == '0')
        --last;

    if (exponent >= -4 && exponent < 17) {
        if (exponent >= 0) {
            memcpy(out, digits, exponent + 1);
            out += exponent + 1;
            if (last > exponent) {
                *out++ = '.';
                memcpy(out, digits + exponent + 1, last - exponent);
                out += last - exponent;
            }
        } else {
            *out++ = '0';
            *out++ = '.';
            for (int i = -1; i > exponent; --i)
                *out++ = '0';
            memcpy(out, digits, last + 1);
            out += last + 1;
        }
        return out;
    }
    *out++ = digits[0];
    if (last > 0) {
        *out++ = '.';
        memcpy(out, digits + 1, last);
        out += last;
    }
    *out++ = 'e';
    *out++ = exponent < 0 ? '-' : '+';
    int magnitudeOfExponent = exponent < 0 ? -exponent : exponent;
    if (magnitudeOfExponent >= 100) {
        *out++ = static_cast<char>('0' + magnitudeOfExponent / 100);
        magnitudeOfExponent %= 100;
    }
    memcpy(out, digitPairs + 2 * magnitudeOfExponent, 2);
    return out + 2;
}

} // namespace velvox::detail
