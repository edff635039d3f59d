#include "VXUserCollectionController.h"

#include "VXResourceStore.h"
#include "VXUser.h"

#include <Platform/Platform.h>

namespace velvox {

VX_DEFINE_CLASS(VXUserCollectionController, VXRemoteCollectionController)

Ref<VXUserCollectionController> VXUserCollectionController::create(const String& resource, Dictionary* parameters)
{
    return adoptRef(*new VXUserCollectionController(resource, parameters));
}

Ref<Object> VXUserCollectionController::itemFromDictionary(Object* dictionary)
{
    auto item = VXResourceStore::shared().userWithUserDictionary(dynamicDowncast<Dictionary>(dictionary));
    VXAssert(item, "a page holds an item that is not a record");
    return item.releaseNonNull();
}

} // namespace velvox
