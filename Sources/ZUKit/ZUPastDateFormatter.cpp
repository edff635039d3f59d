#include "ZUPastDateFormatter.h"

#include <Platform/Values.h>

#include <unicode/calendar.h>
#include <unicode/datefmt.h>
#include <unicode/locid.h>
#include <unicode/reldatefmt.h>
#include <unicode/timezone.h>

#include <cmath>
#include <map>
#include <mutex>

namespace velvox {

VX_DEFINE_CLASS(ZUPastDateFormatter, Object)

// ICU's formatters for one locale and time zone. They are costly to make and
// a template may format hundreds of dates, each with a new ZUPastDateFormatter,
// so they are made once per locale and zone and shared (read-only use of ICU
// formatters is safe from several threads; the calendar is cloned per call).
struct ZUPastDateFormatter::Formatters {
    std::string localeIdentifier;
    std::unique_ptr<icu::RelativeDateTimeFormatter> relative;
    std::unique_ptr<icu::DateFormat> plainDate;
    std::unique_ptr<icu::Calendar> calendar;
};

namespace {

constexpr double minute = 60;
constexpr double hour = 60 * minute;
constexpr double day = 24 * hour;

bool hasLocaleData(const icu::Locale& locale)
{
    std::string_view language = locale.getLanguage();
    if (language.empty() || language == "root")
        return false;
    int32_t count = 0;
    const icu::Locale* available = icu::Locale::getAvailableLocales(count);
    for (int32_t i = 0; i < count; ++i) {
        if (language == available[i].getLanguage())
            return true;
    }
    return false;
}

std::shared_ptr<const ZUPastDateFormatter::Formatters> makeFormatters(const std::string& localeIdentifier, const std::string& zoneIdentifier)
{
    auto formatters = std::make_shared<ZUPastDateFormatter::Formatters>();
    icu::Locale locale = localeIdentifier.empty() ? icu::Locale::getDefault() : icu::Locale::createCanonical(localeIdentifier.c_str());
    std::unique_ptr<icu::TimeZone> zone(zoneIdentifier.empty()
            ? icu::TimeZone::createDefault()
            : icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(zoneIdentifier)));

    // A language ICU has no data for (or the POSIX locale) reads in English.
    if (!hasLocaleData(locale))
        locale = icu::Locale::getEnglish();
    UErrorCode status = U_ZERO_ERROR;
    auto relative = std::make_unique<icu::RelativeDateTimeFormatter>(locale, nullptr, UDAT_STYLE_LONG, UDISPCTX_CAPITALIZATION_NONE, status);
    if (U_FAILURE(status))
        relative = nullptr;
    formatters->localeIdentifier = locale.getName();
    formatters->relative = std::move(relative);
    formatters->plainDate.reset(icu::DateFormat::createDateInstance(icu::DateFormat::kMedium, locale));
    if (formatters->plainDate)
        formatters->plainDate->setTimeZone(*zone);
    status = U_ZERO_ERROR;
    formatters->calendar.reset(icu::Calendar::createInstance(zone->clone(), locale, status));
    if (U_FAILURE(status))
        formatters->calendar = nullptr;
    return formatters;
}

std::shared_ptr<const ZUPastDateFormatter::Formatters> sharedFormatters(std::string_view localeIdentifier, std::string_view zoneIdentifier)
{
    static std::mutex mutex;
    static std::map<std::pair<std::string, std::string>, std::shared_ptr<const ZUPastDateFormatter::Formatters>> cache;
    std::lock_guard lock(mutex);
    auto key = std::make_pair(std::string(localeIdentifier), std::string(zoneIdentifier));
    auto it = cache.find(key);
    if (it != cache.end())
        return it->second;
    // A bounded cache: a program asks for a handful of locales at most.
    if (cache.size() >= 32)
        cache.clear();
    auto formatters = makeFormatters(key.first, key.second);
    cache.emplace(std::move(key), formatters);
    return formatters;
}

std::string toUTF8(const icu::UnicodeString& text)
{
    std::string out;
    text.toUTF8String(out);
    return out;
}

// The local calendar day of an instant, as a day number.
int32_t localDay(const icu::Calendar& prototype, double secondsSince1970)
{
    std::unique_ptr<icu::Calendar> calendar(prototype.clone());
    UErrorCode status = U_ZERO_ERROR;
    calendar->setTime(secondsSince1970 * 1000.0, status);
    int32_t julianDay = calendar->get(UCAL_JULIAN_DAY, status);
    return U_SUCCESS(status) ? julianDay : static_cast<int32_t>(std::floor(secondsSince1970 / day));
}

} // namespace

ZUPastDateFormatter::ZUPastDateFormatter(std::shared_ptr<const Formatters> formatters)
    : m_formatters(std::move(formatters))
{
}

ZUPastDateFormatter::~ZUPastDateFormatter() = default;

Ref<ZUPastDateFormatter> ZUPastDateFormatter::create()
{
    return adoptRef(*new ZUPastDateFormatter(sharedFormatters({}, {})));
}

Ref<ZUPastDateFormatter> ZUPastDateFormatter::create(std::string_view localeIdentifier, std::string_view timeZoneIdentifier)
{
    return adoptRef(*new ZUPastDateFormatter(sharedFormatters(localeIdentifier, timeZoneIdentifier)));
}

const std::string& ZUPastDateFormatter::localeIdentifier() const
{
    return m_formatters->localeIdentifier;
}

RefPtr<String> ZUPastDateFormatter::stringForObjectValue(Object* value) const
{
    auto* date = dynamicDowncast<Date>(value);
    if (!date)
        return nullptr;
    return stringFromDate(*date);
}

Ref<String> ZUPastDateFormatter::stringFromDate(const Date& date) const
{
    auto& formatters = *m_formatters;
    double now = Date::now()->timeIntervalSince1970();
    double then = date.timeIntervalSince1970();
    double elapsed = now - then;
    if (!formatters.relative || !std::isfinite(elapsed))
        return date.description();

    UErrorCode status = U_ZERO_ERROR;
    icu::UnicodeString text;
    auto ago = [&](double count, UDateRelativeUnit unit) {
        formatters.relative->format(count, UDAT_DIRECTION_LAST, unit, text, status);
    };
    int32_t days = 0;
    if (elapsed >= 12 * hour)
        days = formatters.calendar ? localDay(*formatters.calendar, now) - localDay(*formatters.calendar, then) : static_cast<int32_t>(elapsed / day);
    if (elapsed < minute)
        formatters.relative->format(UDAT_DIRECTION_PLAIN, UDAT_ABSOLUTE_NOW, text, status);
    else if (elapsed < hour)
        ago(std::floor(elapsed / minute), UDAT_RELATIVE_MINUTES);
    else if (days <= 0)
        ago(std::floor(elapsed / hour), UDAT_RELATIVE_HOURS);
    else if (days == 1)
        formatters.relative->format(UDAT_DIRECTION_LAST, UDAT_ABSOLUTE_DAY, text, status);
    else if (days < 7)
        ago(days, UDAT_RELATIVE_DAYS);
    else if (days < 28)
        ago(days / 7, UDAT_RELATIVE_WEEKS);
    else if (formatters.plainDate)
        formatters.plainDate->format(then * 1000.0, text);
    if (U_FAILURE(status) || text.isEmpty())
        return date.description();
    return String::create(toUTF8(text));
}

} // namespace velvox
