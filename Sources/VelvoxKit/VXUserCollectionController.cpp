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
    return storedItem(VXResourceStore::shared().userWithUserDictionary(dynamicDowncast<Dictionary>(dictionary)));
}

} // namespace velvox
