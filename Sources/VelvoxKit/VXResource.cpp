#include "VXResource.h"

#include "VXNumberToStringValueTransformer.h"

namespace velvox {

VX_DEFINE_CLASS(VXResource, ZUObject)

Set& VXResource::propertyDescriptors()
{
    static Set* set = [] {
        auto descriptors = ZUObject::propertyDescriptors().mutableCopy();
        descriptors->addObject(ZUPropertyDescriptor::descriptorForKeyPath("resourceIdentifier", "id", VXNumberToStringValueTransformerName)
                                   ->bind(&VXResource::m_resourceIdentifier));
        return descriptors.leakRef();
    }();
    return *set;
}

Ref<String> VXResource::description() const
{
    return String::format("<%@ 0x%08X resourceIdentifier = %@>", className(), this, m_resourceIdentifier);
}

} // namespace velvox
