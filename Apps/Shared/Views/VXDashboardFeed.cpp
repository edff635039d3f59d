#include "VXDashboardFeed.h"

#include <Platform/Platform.h>
#include <VelvoxKit/VXActivity.h>
#include <VelvoxKit/VXResourceStore.h>
#include <VelvoxKit/VXUser.h>

namespace velvox {

VX_DEFINE_CLASS(VXDashboardFeed, VXCursorCollectionController)

namespace {

// A playlist's card from the service's record; every value checked for its type.
Ref<Dictionary> playlistCard(Dictionary& playlist)
{
    auto& store = VXResourceStore::shared();
    auto card = MutableDictionary::create();
    if (auto* title = playlist.objectForKey<String>("title"))
        card->setObject(title, "title");
    if (auto* permalink = playlist.objectForKey<String>("permalink_url"))
        card->setObject(permalink, "permalinkURL");
    if (auto* user = playlist.objectForKey<Dictionary>("user"); user && user->objectForKey("id")) {
        if (auto owner = store.userWithUserDictionary(user))
            card->setObject(owner, "user");
    }
    auto tracks = MutableArray::create();
    size_t count = 0;
    if (auto* list = playlist.objectForKey<Array>("tracks")) {
        count = list->count();
        for (auto* item : *list) {
            if (tracks->count() == VXDashboardFeed::tracksPerPlaylist)
                break;
            auto* record = dynamicDowncast<Dictionary>(item);
            if (!record || !record->objectForKey("id"))
                continue;
            if (auto track = store.trackWithTrackDictionary(record))
                tracks->addObject(track);
        }
    }
    card->setObject(tracks, "tracks");
    card->setObject(Number::withUnsignedInteger(count), "trackCount");
    return card->copy();
}

} // namespace

Ref<VXDashboardFeed> VXDashboardFeed::create(bool exclusive)
{
    return adoptRef(*new VXDashboardFeed(*String::create(exclusive ? "me/activities/tracks/exclusive" : "me/activities/tracks"), nullptr));
}

Ref<Dictionary> VXDashboardFeed::card(VXActivity& activity, Dictionary* playlist)
{
    auto card = MutableDictionary::create();
    card->setObject(&activity, "activity");
    card->setObject(Number::withInteger(activity.type()), "type");
    // What the activity lacks is left out, as a missing key.
    if (activity.track())
        card->setObject(activity.track(), "track");
    if (activity.sharingNote())
        card->setObject(activity.sharingNote(), "sharingNote");
    if (activity.createdAt())
        card->setObject(activity.createdAt(), "createdAt");
    if (playlist)
        card->setObject(playlistCard(*playlist), "playlist");
    return card->copy();
}

Ref<Array> VXDashboardFeed::cards(Array& items)
{
    auto cards = MutableArray::create(items.count());
    for (auto* item : items) {
        if (auto* activity = dynamicDowncast<VXActivity>(item))
            cards->addObject(card(*activity, nullptr));
        else if (is<Dictionary>(item))
            cards->addObject(item);
    }
    return cards->copy();
}

Ref<Object> VXDashboardFeed::itemFromDictionary(Object* dictionary)
{
    auto* record = dynamicDowncast<Dictionary>(dictionary);
    VXAssert(record, "a page holds an item that is not a record");
    auto activity = VXActivity::create(record);
    auto* origin = record->objectForKey<Dictionary>("origin");
    // A shared playlist comes inside its sharing; a playlist of one's own is the origin itself.
    auto* playlist = origin ? origin->objectForKey<Dictionary>("playlist") : nullptr;
    if (!playlist && activity->type() == VXActivityTypePlaylist)
        playlist = origin;
    return card(activity, playlist);
}

} // namespace velvox
