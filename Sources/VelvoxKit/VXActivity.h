#pragma once

// One item of an activity feed (the dashboard): something that happened to a
// track, with the track resolved through the shared store and the sharing
// note that came with it. Activities are made anew for every page and are
// not kept in the identity map.

#include "VXSharingNote.h"
#include "VXTrack.h"

namespace velvox {

// The activity types, as the activity-type transformer gives them.
enum : int32_t {
    VXActivityTypeUnknown = 0,
    VXActivityTypeTrack = 1,
    VXActivityTypeTrackSharing = 2,
    VXActivityTypePlaylist = 4,
    VXActivityTypePlaylistSharing = 8,
};

#define VX_ACTIVITY_PROPERTIES(P)                                                   \
    P(Date, createdAt, CreatedAt, "created_at", VXAPITimestampValueTransformerName) \
    P(Array, tags, Tags, "tags", VXStringToArrayValueTransformerName)               \
    P(int32_t, type, Type, "type", VXActivityTypeValueTransformerName)

class VXActivity final : public ZUObject {
    VX_OBJECT(VXActivity)
    ZU_PROPERTIES(VX_ACTIVITY_PROPERTIES)
public:
    // Raises "Invalid Activity type" for a record whose type is unknown.
    static Ref<VXActivity> create(Dictionary* dictionary) { return ZUObject::create<VXActivity>(dictionary); }

    // Applies the record; a new activity counts as seen.
    void initWithDictionary(Dictionary*) override;
    // Applies the record and rebuilds the track and the sharing note from its
    // "origin"; answers whether the attributes AND the track AND the note changed.
    bool updateWithDictionary(Dictionary*) override;

    VXTrack* track() const { return m_track.get(); }
    void setTrack(VXTrack*);
    VXSharingNote* sharingNote() const { return m_sharingNote.get(); }
    void setSharingNote(VXSharingNote*);
    bool seen() const { return m_seen; }
    void setSeen(bool);

    // "<VXActivity 0x0000ABCD type = track>".
    Ref<String> description() const override;
    RefPtr<Object> valueForKey(std::string_view key) const override;

private:
    friend class ZUObject;
    VXActivity() = default;

    RefPtr<VXTrack> m_track;
    RefPtr<VXSharingNote> m_sharingNote;
    bool m_seen { false };
};

} // namespace velvox
