#pragma once

// One uploaded sound: its metadata, counters, links, processing state and
// sharing, and what the host shows from them (waveform and artwork images,
// the owner, whether it is private, one's own, or not yet played). The
// resource store keeps one per identifier for the whole process.

#include "VXResource.h"

#include <Platform/Image.h>

namespace velvox {

class VXUser;

inline constexpr std::string_view VXTrackWaveformImageDidLoadNotification = "VXTrackWaveformImageDidLoadNotification";
inline constexpr std::string_view VXTrackArtworkImageDidLoadNotification = "VXTrackArtworkImageDidLoadNotification";
inline constexpr std::string_view VXTrackArtwork300ImageDidLoadNotification = "VXTrackArtwork300ImageDidLoadNotification";

// The processing states, as the track-state transformer gives them.
enum : int32_t {
    VXTrackStateUnknown = 0,
    VXTrackStateStoring = 1,
    VXTrackStateStored = 2,
    VXTrackStateFinished = 3,
    VXTrackStateFailed = 4,
};

#define VX_TRACK_PROPERTIES(P)                                                                    \
    P(Date, createdAt, CreatedAt, "created_at", VXAPITimestampValueTransformerName)               \
    P(String, userIdentifier, UserIdentifier, "user_id", VXNumberToStringValueTransformerName)    \
    P(double, duration, Duration, "duration", VXTimeIntervalFromMillisecondsValueTransformerName) \
    P(bool, commentable, Commentable, "commentable", {})                                          \
    P(int32_t, state, State, "state", VXTrackStateValueTransformerName)                           \
    P(String, sharing, Sharing, "sharing", {})                                                    \
    P(Array, tagList, TagList, "tag_list", VXTagListValueTransformerName)                         \
    P(String, permalink, Permalink, "permalink", {})                                              \
    P(String, trackDescription, TrackDescription, "description", {})                              \
    P(bool, streamable, Streamable, "streamable", {})                                             \
    P(bool, downloadable, Downloadable, "downloadable", {})                                       \
    P(String, genre, Genre, "genre", {})                                                          \
    P(String, trackRelease, TrackRelease, "release", {})                                          \
    P(URL, purchaseURL, PurchaseURL, "purchase_url", VXURLStringValueTransformerName)             \
    P(String, labelID, LabelID, "label_id", {})                                                   \
    P(String, labelName, LabelName, "label_name", {})                                             \
    P(String, ISRC, ISRC, "isrc", {})                                                             \
    P(URL, videoURL, VideoURL, "video_url", VXURLStringValueTransformerName)                      \
    P(String, trackType, TrackType, "track_type", {})                                             \
    P(String, keySignature, KeySignature, "key_signature", {})                                    \
    P(String, bpm, Bpm, "bpm", {})                                                                \
    P(String, title, Title, "title", {})                                                          \
    P(String, releaseYear, ReleaseYear, "release_year", {})                                       \
    P(String, releaseMonth, ReleaseMonth, "release_month", {})                                    \
    P(String, releaseDay, ReleaseDay, "release_day", {})                                          \
    P(String, originalFormat, OriginalFormat, "original_format", {})                              \
    P(String, license, License, "license", {})                                                    \
    P(URL, URI, URI, "uri", VXURLStringValueTransformerName)                                      \
    P(URL, permalinkURL, PermalinkURL, "permalink_url", VXURLStringValueTransformerName)          \
    P(URL, artworkURL, ArtworkURL, "artwork_url", VXURLStringValueTransformerName)                \
    P(URL, waveformURL, WaveformURL, "waveform_url", VXURLStringValueTransformerName)             \
    P(URL, streamURL, StreamURL, "stream_url", VXURLStringValueTransformerName)                   \
    P(URL, downloadURL, DownloadURL, "download_url", VXURLStringValueTransformerName)             \
    P(String, secretToken, SecretToken, "secret_token", {})                                       \
    P(URL, secretURI, SecretURI, "secret_uri", VXURLStringValueTransformerName)                   \
    P(uint64_t, sharedToCount, SharedToCount, "shared_to_count", {})                              \
    P(uint64_t, userPlaybackCount, UserPlaybackCount, "user_playback_count", {})                  \
    P(bool, userFavorite, UserFavorite, "user_favorite", {})                                      \
    P(uint64_t, playbackCount, PlaybackCount, "playback_count", {})                               \
    P(uint64_t, downloadCount, DownloadCount, "download_count", {})                               \
    P(uint64_t, favoritingsCount, FavoritingsCount, "favoritings_count", {})                      \
    P(uint64_t, commentCount, CommentCount, "comment_count", {})                                  \
    P(URL, attachmentsURI, AttachmentsURI, "attachments_uri", VXURLStringValueTransformerName)

class VXTrack final : public VXResource {
    VX_OBJECT(VXTrack)
    ZU_PROPERTIES(VX_TRACK_PROPERTIES)
public:
    static Ref<VXTrack> create(Dictionary* dictionary) { return ZUObject::create<VXTrack>(dictionary); }

    // sharing is "private".
    bool isPrivateTrack() const;
    // The signed-in user (of the shared store) owns it; false while none is known.
    bool isOwnTrack() const;
    // Not in the signed-in account's played tracks.
    bool isUnplayed() const;
    // false registers a play (announced as "unplayed"); true does nothing:
    // a track once played is not unplayed again.
    void setUnplayed(bool);

    // The owner from the shared store: the cached user at once (or null); when
    // a fetch ends, observers of the track hear VXResourceAttributesDidChangeNotification.
    RefPtr<VXUser> user();
    RefPtr<VXUser> user(bool forceRefresh);

    // From the shared loading image cache: the image if it is at hand, else
    // null, and a load whose end announces the key and posts the notification.
    RefPtr<Image> waveformImage();
    RefPtr<Image> artworkImage();
    // The artwork at 300 by 300: "-large" in the artwork URL becomes "-t300x300".
    RefPtr<Image> artwork300Image();

    // "<VXTrack 0x0000ABCD title = T | resourceIdentifier = 42>".
    Ref<String> description() const override;
    // Key-value coding also answers the derived keys: isPrivateTrack,
    // isOwnTrack, isUnplayed (and their names without "is"), user.
    RefPtr<Object> valueForKey(std::string_view key) const override;

private:
    friend class ZUObject;
    VXTrack() = default;
};

} // namespace velvox
