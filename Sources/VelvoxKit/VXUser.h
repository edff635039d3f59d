#pragma once

// One account of the service: its profile as the API sends it, two follow
// relations with the signed-in user, and two avatars loaded on demand. Made
// and refreshed only by the resource store, which keeps one per identifier.

#include "VXResource.h"

#include <Platform/Image.h>

namespace velvox {

inline constexpr std::string_view VXUserAvatarImageDidLoadNotification = "VXUserAvatarImageDidLoadNotification";
inline constexpr std::string_view VXUserAvatar300ImageDidLoadNotification = "VXUserAvatar300ImageDidLoadNotification";

#define VX_USER_PROPERTIES(P)                                                             \
    P(String, username, Username, "username", {})                                         \
    P(String, fullName, FullName, "full_name", {})                                        \
    P(String, permalink, Permalink, "permalink", {})                                      \
    P(String, userDescription, UserDescription, "description", {})                        \
    P(String, city, City, "city", {})                                                     \
    P(String, country, Country, "country", {})                                            \
    P(String, discogsName, DiscogsName, "discogs_name", {})                               \
    P(String, lastfmName, LastfmName, "lastfm_name", {})                                  \
    P(String, myspaceName, MyspaceName, "myspace_name", {})                               \
    P(URL, websiteURL, WebsiteURL, "website", VXURLStringValueTransformerName)            \
    P(String, websiteTitle, WebsiteTitle, "website_title", {})                            \
    P(String, online, Online, "online", {})                                               \
    P(URL, avatarURL, AvatarURL, "avatar_url", VXURLStringValueTransformerName)           \
    P(URL, permalinkURL, PermalinkURL, "permalink_url", VXURLStringValueTransformerName)  \
    P(URL, URI, URI, "uri", VXURLStringValueTransformerName)                              \
    P(uint64_t, trackCount, TrackCount, "track_count", {})                                \
    P(String, plan, Plan, "plan", {})                                                     \
    P(uint64_t, followingsCount, FollowingsCount, "followings_count", {})                 \
    P(uint64_t, followersCount, FollowersCount, "followers_count", {})                    \
    P(uint64_t, publicFavoritesCount, PublicFavoritesCount, "public_favorites_count", {}) \
    P(bool, primaryEmailConfirmed, PrimaryEmailConfirmed, "primary_email_confirmed", {})

class VXUser final : public VXResource {
    VX_OBJECT(VXUser)
    ZU_PROPERTIES(VX_USER_PROPERTIES)
public:
    static Ref<VXUser> create(Dictionary* dictionary) { return ZUObject::create<VXUser>(dictionary); }

    // Both follow relations start unknown (-1), from a dictionary or an archive.
    void initWithDictionary(Dictionary*) override;
    void initWithCoder(KeyedUnarchiver&) override;
    // Notes a full record (one that carries "track_count"), then applies it;
    // answers the base's result.
    bool updateWithDictionary(Dictionary*) override;

    bool hasPrimaryEmailConfirmed() const { return primaryEmailConfirmed(); }
    // True once a full user record (not only the short one embedded in
    // tracks, comments and activities) has been applied.
    bool hasFullUserRepresentation() const { return m_fullUserRepresentation; }

    // Whether this user follows the signed-in user (1 yes, 0 no, -1 not known
    // yet, -2 asked and pending). Asks the store when unknown or forced; the
    // answer arrives by key-value observing of "followingMe".
    int32_t isFollowingMe() { return isFollowingMe(false); }
    int32_t isFollowingMe(bool forceRefresh);
    // Whether the signed-in user follows this user, likewise ("followedByMe").
    int32_t isFollowedByMe() { return isFollowedByMe(false); }
    int32_t isFollowedByMe(bool forceRefresh);
    // Asks the service to follow (1) or stop following (0); the property
    // changes when the service has agreed (at once, under the store's
    // optimistic changes).
    void setFollowedByMe(int32_t);
    // Takes a value the store knows (an optimistic change, its rollback),
    // announced to observers of "followedByMe" when it differs; asks nothing.
    void applyFollowedByMe(int32_t);
    int32_t followedByMeValue() const { return m_followedByMe; }

    // From the shared loading image cache: the image if it is at hand, else
    // null, and a load whose end announces the key and posts the notification.
    RefPtr<Image> avatarImage();
    RefPtr<Image> avatar300Image();

    RefPtr<Object> valueForKey(std::string_view key) const override;

private:
    friend class ZUObject;
    VXUser() = default;
    const ZUPropertyAccessor* accessorForKey(std::string_view key) const override;

    bool m_fullUserRepresentation { false };
    int32_t m_followingMe { -1 };
    int32_t m_followedByMe { -1 };
};

} // namespace velvox
