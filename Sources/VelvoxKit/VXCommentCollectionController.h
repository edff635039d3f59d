#pragma once

// A list of comments, each the shared store's one `VXComment` for its record (its embedded user cached too).

#include "VXRemoteCollectionController.h"

namespace velvox {

class VXCommentCollectionController final : public VXRemoteCollectionController {
    VX_OBJECT(VXCommentCollectionController)
public:
    static Ref<VXCommentCollectionController> create(const String& resource, Dictionary* parameters);
    Ref<Object> itemFromDictionary(Object*) override;

private:
    using VXRemoteCollectionController::VXRemoteCollectionController;
};

} // namespace velvox
