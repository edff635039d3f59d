#pragma once

// Number texts that do not depend on the process's locale. A desktop host
// calls setlocale(LC_ALL, ""), and under a decimal-comma locale the C
// library's printf and strtod would write and read "0,5": every conversion
// that the platform and the codec make goes through these instead.

#include <locale.h>

namespace velvox::detail {

// The "C" locale, made once and never freed.
locale_t cLocale();

// strtod in the "C" locale, with the same errno and end-pointer behaviour.
double strtodC(const char* text, char** end);

// Switches the calling thread to the "C" locale for the scope (printf and
// friends then write '.'), and back to what it was after.
class ScopedCLocale {
public:
    ScopedCLocale()
        : m_previous(uselocale(cLocale()))
    {
    }
    ~ScopedCLocale() { uselocale(m_previous); }
    ScopedCLocale(const ScopedCLocale&) = delete;
    ScopedCLocale& operator=(const ScopedCLocale&) = delete;

private:
    locale_t m_previous;
};

} // namespace velvox::detail
