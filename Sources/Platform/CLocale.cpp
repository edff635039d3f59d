#include "CLocale.h"

#include <cstdlib>
#include <new>

namespace velvox::detail {

locale_t cLocale()
{
    static locale_t locale = [] {
        locale_t made = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
        if (!made)
            throw std::bad_alloc();
        return made;
    }();
    return locale;
}

double strtodC(const char* text, char** end)
{
    return strtod_l(text, end, cLocale());
}

} // namespace velvox::detail
