#include "VXActivityTypeValueTransformer.h"

#include "VXValueTransformerSupport.h"

namespace velvox {

VX_DEFINE_CLASS(VXActivityTypeValueTransformer, ValueTransformer)

namespace {

constexpr detail::EnumerationName names[] = {
    { 1, "track" },
    { 2, "track-sharing" },
    { 4, "playlist" },
    { 8, "playlist-sharing" },
};

} // namespace

Ref<VXActivityTypeValueTransformer> VXActivityTypeValueTransformer::create()
{
    return adoptRef(*new VXActivityTypeValueTransformer);
}

void VXActivityTypeValueTransformer::registerValueTransformer()
{
    detail::registerTransformer<VXActivityTypeValueTransformer>(VXActivityTypeValueTransformerName);
}

const ClassInfo& VXActivityTypeValueTransformer::transformedValueClass() const
{
    return Number::s_info;
}

RefPtr<Object> VXActivityTypeValueTransformer::transformedValue(Object* value) const
{
    return detail::enumerationFromString(value, names);
}

RefPtr<Object> VXActivityTypeValueTransformer::reverseTransformedValue(Object* value) const
{
    return detail::stringFromEnumeration(value, names);
}

} // namespace velvox
