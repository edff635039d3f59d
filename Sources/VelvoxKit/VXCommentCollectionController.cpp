#include "VXCommentCollectionController.h"

#include "VXComment.h"
#include "VXResourceStore.h"

#include <Platform/Platform.h>

namespace velvox {

VX_DEFINE_CLASS(VXCommentCollectionController, VXRemoteCollectionController)

Ref<VXCommentCollectionController> VXCommentCollectionController::create(const String& resource, Dictionary* parameters)
{
    return adoptRef(*new VXCommentCollectionController(resource, parameters));
}

Ref<Object> VXCommentCollectionController::itemFromDictionary(Object* dictionary)
{
    return storedItem(VXResourceStore::shared().commentWithCommentDictionary(dynamicDowncast<Dictionary>(dictionary)));
}

} // namespace velvox
