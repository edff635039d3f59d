#include "VXTrackCollectionController.h"

#include "VXResourceStore.h"
#include "VXTrack.h"

#include <Platform/Platform.h>

namespace velvox {

VX_DEFINE_CLASS(VXTrackCollectionController, VXRemoteCollectionController)

Ref<VXTrackCollectionController> VXTrackCollectionController::create(const String& resource, Dictionary* parameters)
{
    return adoptRef(*new VXTrackCollectionController(resource, parameters));
}

Ref<Object> VXTrackCollectionController::itemFromDictionary(Object* dictionary)
{
    return storedItem(VXResourceStore::shared().trackWithTrackDictionary(dynamicDowncast<Dictionary>(dictionary)));
}

} // namespace velvox
