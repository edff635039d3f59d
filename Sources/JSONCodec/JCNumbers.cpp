// JSON numbers: short integers and plain fractions read at once, everything
// else through the grammar and the float conversion, with the range errors.

#include "JCParser.h"

#include <Platform/CLocale.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <fast_float/fast_float.h>
#include <string>

namespace velvox::detail {

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

} // namespace velvox::detail
