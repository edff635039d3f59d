#include "VXTimeIntervalValueTransformer.h"

#include "VXValueTransformerSupport.h"

#include <cmath>

namespace velvox {

VX_DEFINE_CLASS(VXTimeIntervalValueTransformer, ValueTransformer)

Ref<VXTimeIntervalValueTransformer> VXTimeIntervalValueTransformer::create()
{
    return create(1);
}

Ref<VXTimeIntervalValueTransformer> VXTimeIntervalValueTransformer::create(int64_t scalingFactor)
{
    return adoptRef(*new VXTimeIntervalValueTransformer(scalingFactor));
}

void VXTimeIntervalValueTransformer::registerValueTransformer()
{
    ValueTransformer::setValueTransformer(create(1).ptr(), VXTimeIntervalFromSecondsValueTransformerName);
    ValueTransformer::setValueTransformer(create(1000).ptr(), VXTimeIntervalFromMillisecondsValueTransformerName);
}

const ClassInfo& VXTimeIntervalValueTransformer::transformedValueClass() const
{
    return Number::s_info;
}

RefPtr<Object> VXTimeIntervalValueTransformer::transformedValue(Object* value) const
{
    if (!value)
        return Number::withDouble(0.0);
    if (!detail::answersNumericValue(value))
        detail::raiseForValue("Value (%@) does not respond to -integerValue.", value);
    // The whole units first: 1500.9 milliseconds are 1.5 seconds.
    return Number::withDouble(static_cast<double>(detail::integerValueOf(value)) / static_cast<double>(m_scalingFactor));
}

RefPtr<Object> VXTimeIntervalValueTransformer::reverseTransformedValue(Object* value) const
{
    if (!value)
        return Number::withInteger(0);
    if (!detail::answersNumericValue(value))
        detail::raiseForValue("Value (%@) does not respond to -doubleValue.", value);
    double scaled = static_cast<double>(m_scalingFactor) * detail::doubleValueOf(value);
    // Cut toward zero, saturating instead of overflowing.
    return Number::withInteger(Number::withDouble(std::trunc(scaled))->integerValue());
}

} // namespace velvox
