#pragma once

// Numbers keep the type they were made with, as a type code: 'c' for
// booleans, 'q' for signed and 'Q' for unsigned 64-bit integers, 'd' for
// doubles. The encoder writes a number by its code. The two booleans and
// the null value are shared singletons that are never freed.

#include "Object.h"
#include "String.h"

#include <cstdint>
#include <type_traits>

namespace velvox {

class Number final : public Object {
    VX_OBJECT(Number)
    VX_OBJECT_TAG(Number, ObjectTag::Number)
public:
    static Ref<Number> withInteger(int64_t);
    static Ref<Number> withUnsignedInteger(uint64_t);
    static Ref<Number> withDouble(double);
    static Ref<Number> withBool(bool value) { return value ? trueValue() : falseValue(); }
    // A small integer of type 'c' that is not one of the boolean singletons.
    static Ref<Number> withChar(int8_t);
    static Number& trueValue();
    static Number& falseValue();

    // Picks the kind from the C++ type: bool, signed, unsigned or floating.
    template<typename T>
    static Ref<Number> create(T value)
    {
        if constexpr (std::is_same_v<T, bool>)
            return withBool(value);
        else if constexpr (std::is_floating_point_v<T>)
            return withDouble(value);
        else if constexpr (std::is_signed_v<T>)
            return withInteger(value);
        else
            return withUnsignedInteger(value);
    }

    char objCType() const { return m_type; }
    // One of the two boolean singletons.
    bool isBoolean() const { return this == &trueValue() || this == &falseValue(); }
    bool isFloatingPoint() const { return m_type == 'd'; }

    // Conversions truncate toward zero and saturate at the target's range.
    int32_t intValue() const;
    int64_t integerValue() const;
    int64_t longLongValue() const { return integerValue(); }
    uint64_t unsignedLongLongValue() const;
    double doubleValue() const;
    float floatValue() const { return static_cast<float>(doubleValue()); }
    bool boolValue() const;
    // Decimal digits for integers; the shortest text that reads back as the same double.
    Ref<String> stringValue() const;

    // Orders by value across kinds: negative, zero or positive.
    int compare(const Number& other) const;

    Ref<String> description() const override { return stringValue(); }
    bool isEqual(const Object* other) const override;
    size_t hash() const override;

private:
    template<typename T>
    Number(char type, T value)
        : m_type(type)
    {
        setTag(s_tag);
        if constexpr (std::is_same_v<T, double>)
            m_double = value;
        else if constexpr (std::is_same_v<T, uint64_t>)
            m_unsigned = value;
        else
            m_signed = value;
    }

    union {
        int64_t m_signed;
        uint64_t m_unsigned;
        double m_double;
    };
    char m_type;
};

// The null value, which stands for nil inside collections and JSON.
class Null final : public Object {
    VX_OBJECT(Null)
    VX_OBJECT_TAG(Null, ObjectTag::Null)
public:
    static Null& null();
    Ref<String> description() const override;

private:
    Null() { setTag(s_tag); }
};

namespace detail {

// Whether the object answers intValue, integerValue and doubleValue (numbers and strings).
bool answersNumericValue(const Object*);

} // namespace detail

} // namespace velvox
