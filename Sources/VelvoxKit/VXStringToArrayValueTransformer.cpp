#include "VXStringToArrayValueTransformer.h"

#include "VXValueTransformerSupport.h"

namespace velvox {

VX_DEFINE_CLASS(VXStringToArrayValueTransformer, ValueTransformer)

Ref<VXStringToArrayValueTransformer> VXStringToArrayValueTransformer::create()
{
    return create(", ");
}

Ref<VXStringToArrayValueTransformer> VXStringToArrayValueTransformer::create(std::string_view separatorString)
{
    return adoptRef(*new VXStringToArrayValueTransformer(String::create(separatorString)));
}

void VXStringToArrayValueTransformer::registerValueTransformer()
{
    detail::registerTransformer<VXStringToArrayValueTransformer>(VXStringToArrayValueTransformerName);
}

const ClassInfo& VXStringToArrayValueTransformer::transformedValueClass() const
{
    return Array::s_info;
}

RefPtr<Object> VXStringToArrayValueTransformer::transformedValue(Object* value) const
{
    auto* string = detail::stringInput(value);
    if (!string)
        return nullptr;
    if (string->isEmpty())
        return Array::create();
    return string->componentsSeparatedByString(m_separatorString->view());
}

RefPtr<Object> VXStringToArrayValueTransformer::reverseTransformedValue(Object* value) const
{
    auto& arrayValue = detail::requireInput<Array>(value, "Value (%@) does is not of class NSArray.");
    return arrayValue.componentsJoinedByString(m_separatorString->view());
}

} // namespace velvox
