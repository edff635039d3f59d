#include "VXFramework.h"

#include "VXAPITimestampValueTransformer.h"
#include "VXActivity.h"
#include "VXActivityTypeValueTransformer.h"
#include "VXComment.h"
#include "VXNumberToStringValueTransformer.h"
#include "VXResource.h"
#include "VXSharingNote.h"
#include "VXStringToArrayValueTransformer.h"
#include "VXTagListValueTransformer.h"
#include "VXTimeIntervalValueTransformer.h"
#include "VXTrack.h"
#include "VXTrackStateValueTransformer.h"
#include "VXURLStringValueTransformer.h"
#include "VXUser.h"

namespace velvox {

void VXRegisterValueTransformers()
{
    VXURLStringValueTransformer::registerValueTransformer();
    VXTagListValueTransformer::registerValueTransformer();
    VXAPITimestampValueTransformer::registerValueTransformer();
    VXStringToArrayValueTransformer::registerValueTransformer();
    VXActivityTypeValueTransformer::registerValueTransformer();
    VXTrackStateValueTransformer::registerValueTransformer();
    VXTimeIntervalValueTransformer::registerValueTransformer();
    VXNumberToStringValueTransformer::registerValueTransformer();
}

void VXRegisterFramework()
{
    VXRegisterValueTransformers();
    VXRegisterArchiveClasses();
}

void VXRegisterArchiveClasses()
{
    ZUObject::registerClassForArchiving<VXResource>();
    ZUObject::registerClassForArchiving<VXUser>();
    ZUObject::registerClassForArchiving<VXTrack>();
    ZUObject::registerClassForArchiving<VXComment>();
    ZUObject::registerClassForArchiving<VXActivity>();
    ZUObject::registerClassForArchiving<VXSharingNote>();
}

} // namespace velvox
