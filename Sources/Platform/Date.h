#pragma once

#include "Object.h"
#include "String.h"

namespace velvox {

// An instant, as seconds since 1970-01-01 00:00:00 UTC.
class Date final : public Object {
    VX_OBJECT(Date)
public:
    static Ref<Date> create(double timeIntervalSince1970);
    static Ref<Date> now();
    // 0001-01-01 00:00:00 UTC, earlier than any date a service sends.
    static Date& distantPast();
    static Date& distantFuture();

    double timeIntervalSince1970() const { return m_seconds; }
    double timeIntervalSinceNow() const;
    double timeIntervalSinceDate(const Date& other) const { return m_seconds - other.m_seconds; }
    int compare(const Date& other) const { return m_seconds < other.m_seconds ? -1 : m_seconds > other.m_seconds ? 1
                                                                                                                 : 0; }

    // "yyyy-MM-dd HH:mm:ss +0000", in UTC.
    Ref<String> description() const override;
    bool isEqual(const Object* other) const override;
    size_t hash() const override;

private:
    explicit Date(double seconds)
        : m_seconds(seconds)
    {
    }
    double m_seconds;
};

} // namespace velvox
