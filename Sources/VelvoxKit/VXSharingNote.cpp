#include "VXSharingNote.h"

#include "VXAPITimestampValueTransformer.h"

namespace velvox {

VX_DEFINE_CLASS(VXSharingNote, ZUObject)

ZU_DEFINE_PROPERTIES(VXSharingNote, ZUObject, VX_SHARING_NOTE_PROPERTIES)

Ref<String> VXSharingNote::description() const
{
    return String::format("<%@ 0x%08X text = %@ | createdAt = %@>", className(), this, text(), createdAt());
}

} // namespace velvox
