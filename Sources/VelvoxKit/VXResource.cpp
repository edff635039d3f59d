#include "VXResource.h"

#include "VXNumberToStringValueTransformer.h"

namespace velvox {

VX_DEFINE_CLASS(VXResource, ZUObject)

ZU_DEFINE_PROPERTIES(VXResource, ZUObject, VX_RESOURCE_PROPERTIES)

Ref<String> VXResource::description() const
{
    return String::format("<%@ 0x%08X resourceIdentifier = %@>", className(), this, m_resourceIdentifier);
}

} // namespace velvox
