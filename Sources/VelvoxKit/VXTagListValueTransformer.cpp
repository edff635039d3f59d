#include "VXTagListValueTransformer.h"

#include "VXKit.h"
#include "VXValueTransformerSupport.h"

namespace velvox {

VX_DEFINE_CLASS(VXTagListValueTransformer, ValueTransformer)

Ref<VXTagListValueTransformer> VXTagListValueTransformer::create()
{
    return adoptRef(*new VXTagListValueTransformer);
}

void VXTagListValueTransformer::registerValueTransformer()
{
    detail::registerTransformer<VXTagListValueTransformer>(VXTagListValueTransformerName);
}

const ClassInfo& VXTagListValueTransformer::transformedValueClass() const
{
    return Array::s_info;
}

RefPtr<Object> VXTagListValueTransformer::transformedValue(Object* value) const
{
    auto* string = detail::stringInput(value);
    if (!string)
        return nullptr;
    if (string->isEmpty())
        return Array::create();
    return componentsSeparatedByWhitespacePreservingQuotations(*string);
}

RefPtr<Object> VXTagListValueTransformer::reverseTransformedValue(Object* value) const
{
    auto& arrayValue = detail::requireInput<Array>(value, "Value (%@) does is not of class NSArray.");
    std::string text;
    size_t index = 0;
    for (auto* tag : arrayValue) {
        if (index++)
            text.push_back(' ');
        // The element's text is formatted with "%@" and no argument, so every
        // tag comes out as "(null)" (quoted when the tag holds a blank). The
        // service's readers rely on this output as it is.
        if (tag->description()->contains(" "))
            text += "\"" + format("%@") + "\"";
        else
            text += format("%@");
    }
    return String::create(text);
}

} // namespace velvox
