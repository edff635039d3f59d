#pragma once

// The dashboard's feed as its view shows it: each item a card with the
// activity's keys ("track", "sharingNote", "type", "createdAt", and the
// activity itself as "activity") and, for a playlist, what `VXActivity`
// leaves out: "playlist" with its "title", "permalinkURL", owner ("user"),
// first tracks ("tracks", through the store's identity map) and "trackCount".

#include <VelvoxKit/VXCursorCollectionController.h>

namespace velvox {

class VXActivity;

class VXDashboardFeed final : public VXCursorCollectionController {
    VX_OBJECT(VXDashboardFeed)
public:
    // The signed-in user's incoming feed, or the exclusive one.
    static Ref<VXDashboardFeed> create(bool exclusive = false);
    // How many of a playlist's tracks a card holds.
    static constexpr size_t tracksPerPlaylist = 5;

    Ref<Object> itemFromDictionary(Object*) override;

    // The card of an activity, with its playlist's record when it has one.
    static Ref<Dictionary> card(VXActivity&, Dictionary* playlist);
    // Cards for a list of the store's activities (a feed of
    // `VXActivityCollectionController`), which know nothing of playlists;
    // cards pass as they are.
    static Ref<Array> cards(Array& items);

private:
    using VXCursorCollectionController::VXCursorCollectionController;
};

} // namespace velvox
