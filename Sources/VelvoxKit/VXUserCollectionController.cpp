#include "VXUserCollectionController.h"

#include "VXResourceController.h"

#include <Platform/Platform.h>

namespace velvox {

VX_DEFINE_CLASS(VXUserCollectionController, VXRemoteCollectionController)

Ref<VXUserCollectionController> VXUserCollectionController::create(const String& resource, Dictionary* parameters)
{
    return adoptRef(*new VXUserCollectionController(resource, parameters));
}

Ref<Object> VXUserCollectionController::itemFromDictionary(Object* dictionary)
{
    auto item = VXResourceController::sharedResourceController().userWithUserDictionary(dynamicDowncast<Dictionary>(dictionary));
    VXAssert(item, "a page holds an item that is not a record");
    return item.releaseNonNull();
}

} // namespace velvox
