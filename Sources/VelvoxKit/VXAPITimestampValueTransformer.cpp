#include "VXAPITimestampValueTransformer.h"

#include "VXValueTransformerSupport.h"

#include <cmath>
#include <ctime>

namespace velvox {

VX_DEFINE_CLASS(VXAPITimestampValueTransformer, ValueTransformer)

Ref<VXAPITimestampValueTransformer> VXAPITimestampValueTransformer::create()
{
    return adoptRef(*new VXAPITimestampValueTransformer);
}

void VXAPITimestampValueTransformer::registerValueTransformer()
{
    detail::registerTransformer<VXAPITimestampValueTransformer>(VXAPITimestampValueTransformerName);
}

const ClassInfo& VXAPITimestampValueTransformer::transformedValueClass() const
{
    return Date::s_info;
}

namespace {

// Days from 1970-01-01 to a proleptic Gregorian civil date.
int64_t daysFromCivil(int64_t year, unsigned month, unsigned day)
{
    year -= month <= 2;
    int64_t era = (year >= 0 ? year : year - 399) / 400;
    auto yearOfEra = static_cast<unsigned>(year - era * 400);
    unsigned dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + static_cast<int64_t>(dayOfEra) - 719468;
}

bool isLeapYear(int64_t year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

} // namespace

RefPtr<Date> VXAPITimestampValueTransformer::dateFromString(std::string_view text)
{
    // yyyy/MM/dd HH:mm:ss +ZZZZ: exactly 25 characters.
    if (text.size() != 25)
        return nullptr;
    auto digits = [&](size_t at, size_t count, int& out) {
        out = 0;
        for (size_t i = 0; i < count; ++i) {
            char c = text[at + i];
            if (c < '0' || c > '9')
                return false;
            out = out * 10 + (c - '0');
        }
        return true;
    };
    int year, month, day, hour, minute, second, zoneHours, zoneMinutes;
    if (!digits(0, 4, year) || text[4] != '/' || !digits(5, 2, month) || text[7] != '/' || !digits(8, 2, day) || text[10] != ' '
        || !digits(11, 2, hour) || text[13] != ':' || !digits(14, 2, minute) || text[16] != ':' || !digits(17, 2, second) || text[19] != ' '
        || (text[20] != '+' && text[20] != '-') || !digits(21, 2, zoneHours) || !digits(23, 2, zoneMinutes))
        return nullptr;
    static constexpr int daysInMonth[] = { 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31 };
    if (month < 1 || month > 12 || day < 1 || day > daysInMonth[month - 1] + (month == 2 && isLeapYear(year)))
        return nullptr;
    if (hour > 23 || minute > 59 || second > 59 || zoneHours > 23 || zoneMinutes > 59)
        return nullptr;
    int64_t offset = (zoneHours * 3600 + zoneMinutes * 60) * (text[20] == '-' ? -1 : 1);
    int64_t seconds = daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second - offset;
    return Date::create(static_cast<double>(seconds));
}

Ref<String> VXAPITimestampValueTransformer::stringFromDate(const Date& date)
{
    auto seconds = static_cast<time_t>(std::floor(date.timeIntervalSince1970()));
    struct tm local;
    localtime_r(&seconds, &local);
    long offset = local.tm_gmtoff;
    char sign = offset < 0 ? '-' : '+';
    offset = offset < 0 ? -offset : offset;
    return String::format("%04d/%02d/%02d %02d:%02d:%02d %c%02ld%02ld", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
        local.tm_min, local.tm_sec, sign, offset / 3600, (offset % 3600) / 60);
}

RefPtr<Object> VXAPITimestampValueTransformer::transformedValue(Object* value) const
{
    auto* string = detail::stringInput(value);
    if (!string)
        return nullptr;
    if (string->isEmpty())
        return nullptr;
    return dateFromString(string->view());
}

RefPtr<Object> VXAPITimestampValueTransformer::reverseTransformedValue(Object* value) const
{
    auto& dateValue = detail::requireInput<Date>(value, "Value (%@) does is not of class NSDate.");
    return stringFromDate(dateValue);
}

} // namespace velvox
