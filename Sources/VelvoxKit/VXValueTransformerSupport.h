#pragma once

// What the framework's value transformers share. Not installed.

#include <Platform/Collections.h>
#include <Platform/Exception.h>
#include <Platform/Number.h>
#include <Platform/String.h>
#include <Platform/ValueTransformer.h>

namespace velvox::detail {

// Raises the internal-inconsistency exception with a message whose one %@ is
// the class of the offending value ("(null)" for an absent one).
[[noreturn]] inline void raiseForValue(std::string_view format, const Object* value)
{
    if (value)
        Exception::raise(InternalInconsistencyException, format, value->className());
    Exception::raise(InternalInconsistencyException, format, static_cast<const Object*>(nullptr));
}

// The forward preamble of the transformers that read strings: an absent value
// gives null, a string itself, any other value raises.
inline String* stringInput(Object* value)
{
    if (!value)
        return nullptr;
    auto* string = dynamicDowncast<String>(value);
    if (!string)
        raiseForValue("Value (%@) does is not of class NSString.", value);
    return string;
}

// The reverse preamble: the value must be of kind T (an absent one included).
template<typename T>
T& requireInput(Object* value, std::string_view message)
{
    auto* typed = dynamicDowncast<T>(value);
    if (!typed)
        raiseForValue(message, value);
    return *typed;
}

inline int64_t integerValueOf(const Object* value)
{
    if (auto* number = dynamicDowncast<Number>(value))
        return number->integerValue();
    return downcast<String>(value)->integerValue();
}

inline int32_t intValueOf(const Object* value)
{
    if (auto* number = dynamicDowncast<Number>(value))
        return number->intValue();
    return downcast<String>(value)->intValue();
}

inline double doubleValueOf(const Object* value)
{
    if (auto* number = dynamicDowncast<Number>(value))
        return number->doubleValue();
    return downcast<String>(value)->doubleValue();
}

// The enumerations that travel as strings: forward, an absent value gives 0,
// a string its value in the table (0 when unknown); back, a value's intValue
// gives its string ("" when unknown).
struct EnumerationName {
    int32_t value;
    std::string_view name;
};

template<size_t N>
RefPtr<Object> enumerationFromString(Object* value, const EnumerationName (&table)[N])
{
    auto* string = stringInput(value);
    if (!string)
        return Number::withInteger(0);
    for (auto& entry : table) {
        if (string->view() == entry.name)
            return Number::withInteger(entry.value);
    }
    return Number::withInteger(0);
}

template<size_t N>
RefPtr<Object> stringFromEnumeration(Object* value, const EnumerationName (&table)[N])
{
    if (!answersNumericValue(value))
        raiseForValue("Value (%@) does is not respond to -intValue.", value);
    int32_t code = intValueOf(value);
    for (auto& entry : table) {
        if (code == entry.value)
            return String::create(entry.name);
    }
    return &String::empty();
}

// Registers one instance of a transformer class under a name.
template<typename Transformer>
void registerTransformer(std::string_view name)
{
    ValueTransformer::setValueTransformer(Transformer::create().ptr(), name);
}

} // namespace velvox::detail
