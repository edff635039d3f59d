#pragma once

// A list of users, each the shared store's one `VXUser` for its record.

#include "VXRemoteCollectionController.h"

namespace velvox {

class VXUserCollectionController final : public VXRemoteCollectionController {
    VX_OBJECT(VXUserCollectionController)
public:
    static Ref<VXUserCollectionController> create(const String& resource, Dictionary* parameters);
    Ref<Object> itemFromDictionary(Object*) override;

private:
    using VXRemoteCollectionController::VXRemoteCollectionController;
};

} // namespace velvox
