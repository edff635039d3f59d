#include "VXNumberToStringValueTransformer.h"

#include "VXValueTransformerSupport.h"

namespace velvox {

VX_DEFINE_CLASS(VXNumberToStringValueTransformer, ValueTransformer)

Ref<VXNumberToStringValueTransformer> VXNumberToStringValueTransformer::create()
{
    return adoptRef(*new VXNumberToStringValueTransformer);
}

void VXNumberToStringValueTransformer::registerValueTransformer()
{
    detail::registerTransformer<VXNumberToStringValueTransformer>(VXNumberToStringValueTransformerName);
}

const ClassInfo& VXNumberToStringValueTransformer::transformedValueClass() const
{
    return String::s_info;
}

RefPtr<Object> VXNumberToStringValueTransformer::transformedValue(Object* value) const
{
    if (!value || is<String>(value))
        return value;
    // Of the values JSON gives, only numbers answer stringValue.
    auto* number = dynamicDowncast<Number>(value);
    if (!number)
        detail::raiseForValue("Value (%@) does not respond to -stringValue.", value);
    return number->stringValue();
}

RefPtr<Object> VXNumberToStringValueTransformer::reverseTransformedValue(Object* value) const
{
    if (!value)
        return Number::withDouble(0.0);
    if (!detail::answersNumericValue(value))
        detail::raiseForValue("Value (%@) does not respond to -doubleValue.", value);
    return Number::withDouble(detail::doubleValueOf(value));
}

} // namespace velvox
