#include "VXActivity.h"

#include "VXAPITimestampValueTransformer.h"
#include "VXActivityTypeValueTransformer.h"
#include "VXResourceStore.h"
#include "VXStringToArrayValueTransformer.h"
#include "VXTrack.h"

#include <Platform/ValueTransformer.h>

namespace velvox {

VX_DEFINE_CLASS(VXActivity, ZUObject)

ZU_DEFINE_PROPERTIES(VXActivity, ZUObject, VX_ACTIVITY_PROPERTIES)

void VXActivity::initWithDictionary(Dictionary* dictionary)
{
    updateWithDictionary(dictionary);
    m_seen = true;
}

bool VXActivity::updateWithDictionary(Dictionary* dictionary)
{
    Ref protectedThis { *this };
    bool attributesChanged = ZUObject::updateWithDictionary(dictionary);
    auto* origin = dictionary ? dictionary->objectForKey<Dictionary>("origin") : nullptr;

    RefPtr<VXTrack> oldTrack = m_track;
    RefPtr<VXSharingNote> oldNote = m_sharingNote;
    setTrack(nullptr);
    setSharingNote(nullptr);

    if (auto* note = origin ? origin->objectForKey<Dictionary>("sharing_note") : nullptr)
        setSharingNote(VXSharingNote::create(note).ptr());

    auto& store = VXResourceStore::shared();
    switch (type()) {
    case VXActivityTypeUnknown:
        VXAssert(false, "Invalid Activity type");
        break;
    case VXActivityTypeTrack:
        setTrack(store.trackWithTrackDictionary(origin).get());
        break;
    case VXActivityTypeTrackSharing:
        setTrack(store.trackWithTrackDictionary(origin ? origin->objectForKey<Dictionary>("track") : nullptr).get());
        break;
    case VXActivityTypePlaylist:
        VXLog("Activitys with playlists aren't supported yet");
        break;
    default:
        break;
    }

    bool trackChanged = oldTrack ? !objectsEqual(oldTrack.get(), m_track.get()) : static_cast<bool>(m_track);
    bool noteChanged = oldNote ? !objectsEqual(oldNote.get(), m_sharingNote.get()) : static_cast<bool>(m_sharingNote);
    // All three must hold for the update to count as a change.
    return attributesChanged && trackChanged && noteChanged;
}

void VXActivity::setTrack(VXTrack* track)
{
    if (track == m_track.get())
        return;
    setDeclaredProperty(m_track, track, "track");
}

void VXActivity::setSharingNote(VXSharingNote* note)
{
    if (note == m_sharingNote.get())
        return;
    setDeclaredProperty(m_sharingNote, note, "sharingNote");
}

void VXActivity::setSeen(bool seen)
{
    if (seen == m_seen)
        return;
    setDeclaredProperty(m_seen, seen, "seen");
}

Ref<String> VXActivity::description() const
{
    RefPtr<Object> typeName;
    if (auto transformer = ValueTransformer::valueTransformerForName(VXActivityTypeValueTransformerName))
        typeName = transformer->reverseTransformedValue(Number::create(type()).ptr());
    return String::format("<%@ 0x%08X type = %@>", className(), this, typeName ? typeName.get() : String::create("").ptr());
}

RefPtr<Object> VXActivity::valueForKey(std::string_view key) const
{
    if (key == "track")
        return m_track;
    if (key == "sharingNote")
        return m_sharingNote;
    if (key == "seen")
        return Number::withBool(m_seen);
    return ZUObject::valueForKey(key);
}

} // namespace velvox
