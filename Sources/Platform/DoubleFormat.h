#pragma once

// The text printf's "%.17g" gives a finite double (17 significant digits,
// trailing zeros dropped, the exponent form below 1e-4 and from 1e17), in the
// "C" locale whatever the process's locale, and several times faster than
// printf or std::to_chars with a precision.

#include <cstddef>

namespace velvox::detail {

// Room enough for every result ("-1.2345678901234567e-308" is 24 bytes).
inline constexpr size_t double17BufferSize = 32;

// Writes the text of a finite value at `out` (no terminating NUL) and
// answers the end. Infinities and NaN are the caller's to refuse.
char* formatDouble17(double value, char* out);

} // namespace velvox::detail
