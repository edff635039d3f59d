#include "VXURLStringValueTransformer.h"

#include "VXValueTransformerSupport.h"

#include <Platform/Values.h>

namespace velvox {

VX_DEFINE_CLASS(VXURLStringValueTransformer, ValueTransformer)

Ref<VXURLStringValueTransformer> VXURLStringValueTransformer::create()
{
    return adoptRef(*new VXURLStringValueTransformer);
}

void VXURLStringValueTransformer::registerValueTransformer()
{
    detail::registerTransformer<VXURLStringValueTransformer>(VXURLStringValueTransformerName);
}

const ClassInfo& VXURLStringValueTransformer::transformedValueClass() const
{
    return URL::s_info;
}

RefPtr<Object> VXURLStringValueTransformer::transformedValue(Object* value) const
{
    auto* string = detail::stringInput(value);
    if (!string)
        return nullptr;
    if (string->isEmpty())
        return nullptr;
    return URL::create(*string);
}

RefPtr<Object> VXURLStringValueTransformer::reverseTransformedValue(Object* value) const
{
    auto& urlValue = detail::requireInput<URL>(value, "Value (%@) does is not of class NSURL.");
    return urlValue.absoluteString();
}

} // namespace velvox
