#include "VXTrack.h"

#include "VXAPITimestampValueTransformer.h"
#include "VXNumberToStringValueTransformer.h"
#include "VXResourceStore.h"
#include "VXTagListValueTransformer.h"
#include "VXTimeIntervalValueTransformer.h"
#include "VXTrackStateValueTransformer.h"
#include "VXURLStringValueTransformer.h"
#include "VXUser.h"

namespace velvox {

VX_DEFINE_CLASS(VXTrack, VXResource)

ZU_DEFINE_PROPERTIES(VXTrack, VXResource, VX_TRACK_PROPERTIES)

bool VXTrack::isPrivateTrack() const
{
    return sharing() && sharing()->isEqualToString("private");
}

bool VXTrack::isOwnTrack() const
{
    auto* me = VXResourceStore::shared().meUserIdentifier();
    return me && userIdentifier() && me->isEqualToString(userIdentifier()->view());
}

bool VXTrack::isUnplayed() const
{
    return !VXResourceStore::shared().hasTrackBeenPlayedForTrackIdentifier(resourceIdentifier());
}

void VXTrack::setUnplayed(bool unplayed)
{
    if (unplayed == isUnplayed() || unplayed)
        return;
    Ref protectedThis { *this };
    willChangeValueForKey("unplayed");
    VXResourceStore::shared().registerTrackPlayedForIdentifier(resourceIdentifier());
    didChangeValueForKey("unplayed");
}

RefPtr<VXUser> VXTrack::user()
{
    return user(false);
}

RefPtr<VXUser> VXTrack::user(bool forceRefresh)
{
    auto& store = VXResourceStore::shared();
    // A cached owner is answered without a fetch (and so without a block).
    if (!forceRefresh) {
        if (auto cached = store.cachedResource<VXUser>(userIdentifier()))
            return cached;
    }
    return store.userForIdentifier(userIdentifier(), forceRefresh,
        relatedResourceHandler("VXTrack - User fetch error: %@", Posting::Coalesced));
}

RefPtr<Image> VXTrack::waveformImage()
{
    return loadImage(waveformURL(), "waveformImage", VXTrackWaveformImageDidLoadNotification);
}

RefPtr<Image> VXTrack::artworkImage()
{
    return loadImage(artworkURL(), "artworkImage", VXTrackArtworkImageDidLoadNotification);
}

RefPtr<Image> VXTrack::artwork300Image()
{
    if (!artworkURL())
        return nullptr;
    auto url = URL::create(detail::replacingLargeWith300(artworkURL()->absoluteString()->view()));
    return loadImage(url.get(), "artwork300Image", VXTrackArtwork300ImageDidLoadNotification);
}

Ref<String> VXTrack::description() const
{
    return String::format("<%@ 0x%08X title = %@ | resourceIdentifier = %@>", className(), this, title(), resourceIdentifier());
}

RefPtr<Object> VXTrack::valueForKey(std::string_view key) const
{
    if (key == "isPrivateTrack" || key == "privateTrack")
        return Number::withBool(isPrivateTrack());
    if (key == "isOwnTrack" || key == "ownTrack")
        return Number::withBool(isOwnTrack());
    if (key == "isUnplayed" || key == "unplayed")
        return Number::withBool(resourceIdentifier() && isUnplayed());
    if (key == "user")
        return const_cast<VXTrack*>(this)->user(false);
    return VXResource::valueForKey(key);
}

} // namespace velvox
