#pragma once

// Relative texts for past dates, in the user's language: "now",
// "5 minutes ago", "3 hours ago", "yesterday", "3 days ago", "2 weeks ago",
// and beyond four weeks the plain date ("Nov 3, 2026"). Measured against
// Date::now(), so the run loop's clock decides what "now" is (tests fix it).
//
// The wording comes from ICU's relative date-time formatting for the user's
// locale (from LC_ALL, LC_MESSAGES or LANG), so that a German desktop reads
// "vor 5 Minuten" and a French one "il y a 5 minutes"; English where ICU has
// no data for the locale. Calendar days (yesterday, days ago) are counted in
// the user's time zone.

#include <Platform/Object.h>
#include <Platform/String.h>

#include <memory>
#include <string>
#include <string_view>

namespace velvox {

class Date;

class ZUPastDateFormatter final : public Object {
    VX_OBJECT(ZUPastDateFormatter)
public:
    // For the user's locale and time zone.
    static Ref<ZUPastDateFormatter> create();
    // For a given locale ("de_DE", "fr") and time zone ("Europe/Berlin"; empty: the user's).
    static Ref<ZUPastDateFormatter> create(std::string_view localeIdentifier, std::string_view timeZoneIdentifier = {});

    // The relative text of a date; a date in the future (clock skew) reads as
    // "now". Null for a value that is not a date.
    RefPtr<String> stringForObjectValue(Object* value) const;
    Ref<String> stringFromDate(const Date&) const;

    // The locale whose wording is used.
    const std::string& localeIdentifier() const;

    struct Formatters;

private:
    explicit ZUPastDateFormatter(std::shared_ptr<const Formatters>);
    ~ZUPastDateFormatter() override;

    std::shared_ptr<const Formatters> m_formatters;
};

} // namespace velvox
