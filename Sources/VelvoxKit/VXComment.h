#pragma once

// A comment on a track, possibly anchored at a position in it. Its track and
// author are not kept in the comment: each read asks the shared store.

#include "VXResource.h"

namespace velvox {

class VXTrack;
class VXUser;

#define VX_COMMENT_PROPERTIES(P)                                                                     \
    P(Date, createdAt, CreatedAt, "created_at", VXAPITimestampValueTransformerName)                  \
    P(double, timestamp, Timestamp, "timestamp", VXTimeIntervalFromMillisecondsValueTransformerName) \
    P(String, trackIdentifier, TrackIdentifier, "track_id", VXNumberToStringValueTransformerName)    \
    P(String, userIdentifier, UserIdentifier, "user_id", VXNumberToStringValueTransformerName)       \
    P(String, body, Body, "body", {})                                                                \
    P(URL, URI, URI, "uri", VXURLStringValueTransformerName)

class VXComment final : public VXResource {
    VX_OBJECT(VXComment)
    ZU_PROPERTIES(VX_COMMENT_PROPERTIES)
public:
    static Ref<VXComment> create(Dictionary* dictionary) { return ZUObject::create<VXComment>(dictionary); }

    void initWithDictionary(Dictionary*) override;
    // Timed exactly when the record holds "timestamp"; then applies it.
    bool updateWithDictionary(Dictionary*) override;

    // Anchored at timestamp().
    bool isTimedComment() const { return m_timedComment; }
    void setTimedComment(bool);

    // The track and the author from the shared store: the cached object at
    // once (or null, and a fetch); when the fetch ends, observers of the
    // comment hear VXResourceAttributesDidChangeNotification.
    RefPtr<VXTrack> track();
    RefPtr<VXTrack> track(bool forceRefresh);
    RefPtr<VXUser> user();
    RefPtr<VXUser> user(bool forceRefresh);

    RefPtr<Object> valueForKey(std::string_view key) const override;

private:
    friend class ZUObject;
    VXComment() = default;

    bool m_timedComment { false };
};

} // namespace velvox
