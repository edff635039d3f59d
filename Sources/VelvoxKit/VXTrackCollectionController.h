#pragma once

// A list of tracks, each the shared store's one `VXTrack` for its record (made or refreshed from it, followed while the service processes it).

#include "VXRemoteCollectionController.h"

namespace velvox {

class VXTrackCollectionController final : public VXRemoteCollectionController {
    VX_OBJECT(VXTrackCollectionController)
public:
    static Ref<VXTrackCollectionController> create(const String& resource, Dictionary* parameters);
    Ref<Object> itemFromDictionary(Object*) override;

private:
    using VXRemoteCollectionController::VXRemoteCollectionController;
};

} // namespace velvox
