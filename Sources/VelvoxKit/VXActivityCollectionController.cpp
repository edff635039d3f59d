#include "VXActivityCollectionController.h"

#include "VXActivity.h"

#include <Platform/Platform.h>

namespace velvox {

VX_DEFINE_CLASS(VXActivityCollectionController, VXCursorCollectionController)

Ref<VXActivityCollectionController> VXActivityCollectionController::create(const String& resource, Dictionary* parameters)
{
    return adoptRef(*new VXActivityCollectionController(resource, parameters));
}

Ref<Object> VXActivityCollectionController::itemFromDictionary(Object* dictionary)
{
    auto* record = dynamicDowncast<Dictionary>(dictionary);
    VXAssert(record, "a page holds an item that is not a record");
    return VXActivity::create(record);
}

} // namespace velvox
