#pragma once

// The note a user attached when sharing a track, carried inside an activity.

#include <ZUKit/ZUObject.h>

#include <Platform/Values.h>

namespace velvox {

#define VX_SHARING_NOTE_PROPERTIES(P) \
    P(String, text, Text, "text", {}) \
    P(Date, createdAt, CreatedAt, "created_at", VXAPITimestampValueTransformerName)

class VXSharingNote final : public ZUObject {
    VX_OBJECT(VXSharingNote)
    ZU_PROPERTIES(VX_SHARING_NOTE_PROPERTIES)
public:
    static Ref<VXSharingNote> create(Dictionary* dictionary) { return ZUObject::create<VXSharingNote>(dictionary); }

    // "<VXSharingNote 0x0000ABCD text = T | createdAt = D>".
    Ref<String> description() const override;

private:
    friend class ZUObject;
    VXSharingNote() = default;
};

} // namespace velvox
