#include "VXTrackStateValueTransformer.h"

#include "VXValueTransformerSupport.h"

namespace velvox {

VX_DEFINE_CLASS(VXTrackStateValueTransformer, ValueTransformer)

namespace {

constexpr detail::EnumerationName names[] = {
    { 1, "storing" },
    { 2, "stored" },
    { 3, "finished" },
    { 4, "failed" },
};

} // namespace

Ref<VXTrackStateValueTransformer> VXTrackStateValueTransformer::create()
{
    return adoptRef(*new VXTrackStateValueTransformer);
}

void VXTrackStateValueTransformer::registerValueTransformer()
{
    detail::registerTransformer<VXTrackStateValueTransformer>(VXTrackStateValueTransformerName);
}

const ClassInfo& VXTrackStateValueTransformer::transformedValueClass() const
{
    return Number::s_info;
}

RefPtr<Object> VXTrackStateValueTransformer::transformedValue(Object* value) const
{
    return detail::enumerationFromString(value, names);
}

RefPtr<Object> VXTrackStateValueTransformer::reverseTransformedValue(Object* value) const
{
    return detail::stringFromEnumeration(value, names);
}

} // namespace velvox
