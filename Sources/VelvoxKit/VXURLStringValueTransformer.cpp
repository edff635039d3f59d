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
    if (!value)
        return nullptr;
    auto* string = dynamicDowncast<String>(value);
    if (!string)
        detail::raiseForValue("Value (%@) does is not of class NSString.", value);
    if (string->isEmpty())
        return nullptr;
    return URL::create(string->view());
}

RefPtr<Object> VXURLStringValueTransformer::reverseTransformedValue(Object* value) const
{
    auto* url = dynamicDowncast<URL>(value);
    if (!url)
        detail::raiseForValue("Value (%@) does is not of class NSURL.", value);
    return url->absoluteString();
}

} // namespace velvox
