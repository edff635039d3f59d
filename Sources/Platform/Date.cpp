#include "Date.h"

#include "RunLoop.h"
#include "String.h"

#include <cmath>
#include <ctime>
#include <functional>

namespace velvox {

VX_DEFINE_CLASS(Date, Object)

Ref<Date> Date::create(double seconds)
{
    return adoptRef(*new Date(seconds));
}

Ref<Date> Date::now()
{
    // The thread's run loop clock, so that a manual clock fixes "now" in tests.
    if (auto* loop = RunLoop::currentIfExists())
        return create(loop->clock().wallTime());
    return create(SystemClock::shared().wallTime());
}

Date& Date::distantPast()
{
    static Date* s_date = new Date(-62135596800.0);
    return *s_date;
}

Date& Date::distantFuture()
{
    static Date* s_date = new Date(64092211200.0);
    return *s_date;
}

double Date::timeIntervalSinceNow() const
{
    return m_seconds - now()->m_seconds;
}

Ref<String> Date::description() const
{
    // Years beyond what a calendar can show (and NaN) have no text; converting
    // such a double to an integer would be undefined.
    if (!(std::fabs(m_seconds) < 1e15))
        return String::create("(invalid date)");
    time_t seconds = static_cast<time_t>(std::floor(m_seconds));
    struct tm utc;
    if (!gmtime_r(&seconds, &utc))
        return String::create("(invalid date)");
    char text[64];
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S +0000", &utc);
    return String::create(text);
}

bool Date::isEqual(const Object* other) const
{
    auto* date = dynamicDowncast<Date>(other);
    return date && date->m_seconds == m_seconds;
}

size_t Date::hash() const
{
    // Whole seconds where they fit an integer; any other double hashes by its bits.
    if (std::fabs(m_seconds) < 9.2e18)
        return static_cast<size_t>(static_cast<int64_t>(m_seconds));
    return std::hash<double>()(m_seconds);
}

} // namespace velvox
