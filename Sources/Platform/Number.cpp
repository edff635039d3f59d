#include "Number.h"

#include "String.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace velvox {

VX_DEFINE_CLASS(Number, Object)
VX_DEFINE_CLASS(Null, Object)

Ref<Number> Number::withInteger(int64_t value)
{
    return adoptRef(*new Number('q', value));
}

Ref<Number> Number::withUnsignedInteger(uint64_t value)
{
    return adoptRef(*new Number('Q', value));
}

Ref<Number> Number::withChar(int8_t value)
{
    return adoptRef(*new Number('c', int64_t(value)));
}

Ref<Number> Number::withDouble(double value)
{
    return adoptRef(*new Number('d', value));
}

Number& Number::trueValue()
{
    static Number* s_true = [] {
        auto* value = new Number('c', int64_t(1));
        value->makeImmortal();
        return value;
    }();
    return *s_true;
}

Number& Number::falseValue()
{
    static Number* s_false = [] {
        auto* value = new Number('c', int64_t(0));
        value->makeImmortal();
        return value;
    }();
    return *s_false;
}

namespace {

template<typename Integer>
Integer saturatingCast(double value)
{
    if (std::isnan(value))
        return 0;
    constexpr double low = static_cast<double>(std::numeric_limits<Integer>::min());
    constexpr double high = static_cast<double>(std::numeric_limits<Integer>::max());
    if (value <= low)
        return std::numeric_limits<Integer>::min();
    if (value >= high)
        return std::numeric_limits<Integer>::max();
    return static_cast<Integer>(value);
}

} // namespace

int64_t Number::integerValue() const
{
    switch (m_type) {
    case 'd':
        return saturatingCast<int64_t>(m_double);
    case 'Q':
        return static_cast<int64_t>(m_unsigned);
    default:
        return m_signed;
    }
}

int32_t Number::intValue() const
{
    if (m_type == 'd')
        return saturatingCast<int32_t>(m_double);
    // Integers narrow as C does: the low 32 bits.
    return static_cast<int32_t>(integerValue());
}

uint64_t Number::unsignedLongLongValue() const
{
    switch (m_type) {
    case 'd':
        return m_double < 0 ? static_cast<uint64_t>(saturatingCast<int64_t>(m_double)) : saturatingCast<uint64_t>(m_double);
    case 'Q':
        return m_unsigned;
    default:
        return static_cast<uint64_t>(m_signed);
    }
}

double Number::doubleValue() const
{
    switch (m_type) {
    case 'd':
        return m_double;
    case 'Q':
        return static_cast<double>(m_unsigned);
    default:
        return static_cast<double>(m_signed);
    }
}

bool Number::boolValue() const
{
    switch (m_type) {
    case 'd':
        return m_double != 0;
    case 'Q':
        return m_unsigned;
    default:
        return m_signed;
    }
}

Ref<String> Number::stringValue() const
{
    char buffer[64];
    std::to_chars_result result;
    switch (m_type) {
    case 'd':
        if (std::isnan(m_double))
            return String::create("nan");
        if (std::isinf(m_double))
            return String::create(m_double < 0 ? "-inf" : "inf");
        result = std::to_chars(buffer, buffer + sizeof(buffer), m_double);
        break;
    case 'Q':
        result = std::to_chars(buffer, buffer + sizeof(buffer), m_unsigned);
        break;
    default:
        result = std::to_chars(buffer, buffer + sizeof(buffer), m_signed);
        break;
    }
    return String::create(std::string_view(buffer, result.ptr - buffer));
}

int Number::compare(const Number& other) const
{
    auto sign = [](auto a, auto b) { return a < b ? -1 : a > b ? 1
                                                               : 0; };
    if (m_type == 'd' || other.m_type == 'd') {
        // long double holds every 64-bit integer exactly.
        auto wide = [](const Number& n) -> long double {
            return n.m_type == 'd' ? n.m_double : n.m_type == 'Q' ? static_cast<long double>(n.m_unsigned)
                                                                  : static_cast<long double>(n.m_signed);
        };
        return sign(wide(*this), wide(other));
    }
    bool aUnsigned = m_type == 'Q', bUnsigned = other.m_type == 'Q';
    if (aUnsigned == bUnsigned)
        return aUnsigned ? sign(m_unsigned, other.m_unsigned) : sign(m_signed, other.m_signed);
    if (aUnsigned)
        return other.m_signed < 0 ? 1 : sign(m_unsigned, static_cast<uint64_t>(other.m_signed));
    return m_signed < 0 ? -1 : sign(static_cast<uint64_t>(m_signed), other.m_unsigned);
}

bool Number::isEqual(const Object* other) const
{
    if (this == other)
        return true;
    auto* number = dynamicDowncast<Number>(other);
    return number && !compare(*number);
}

size_t Number::hash() const
{
    // Equal values hash alike whatever their kind: integral doubles hash as integers.
    uint64_t bits;
    if (m_type == 'd') {
        double value = m_double;
        if (value == std::trunc(value) && value >= -9223372036854775808.0 && value < 9223372036854775808.0)
            bits = static_cast<uint64_t>(static_cast<int64_t>(value));
        else if (value == std::trunc(value) && value >= 0 && value < 18446744073709551616.0)
            bits = static_cast<uint64_t>(value);
        else
            memcpy(&bits, &value, sizeof(bits));
    } else
        bits = m_unsigned;
    bits ^= bits >> 33;
    bits *= 0xff51afd7ed558ccdull;
    bits ^= bits >> 33;
    return static_cast<size_t>(bits);
}

Null& Null::null()
{
    static Null* s_null = [] {
        auto* value = new Null;
        value->makeImmortal();
        return value;
    }();
    return *s_null;
}

Ref<String> Null::description() const
{
    return String::create("<null>");
}

bool detail::answersNumericValue(const Object* object)
{
    return is<Number>(object) || is<String>(object);
}

} // namespace velvox
