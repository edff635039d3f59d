#pragma once

// A list of activities of a feed, paged by cursor, each a new `VXActivity`: activities are not kept in the identity map.

#include "VXCursorCollectionController.h"

namespace velvox {

class VXActivityCollectionController final : public VXCursorCollectionController {
    VX_OBJECT(VXActivityCollectionController)
public:
    static Ref<VXActivityCollectionController> create(const String& resource, Dictionary* parameters);
    Ref<Object> itemFromDictionary(Object*) override;

private:
    using VXCursorCollectionController::VXCursorCollectionController;
};

} // namespace velvox
