#pragma once

// An activity type string to its number (track 1, track-sharing 2, playlist 4, playlist-sharing 8; else 0), and back.
// A value of the wrong class is a programming error and raises.

#include <Platform/ValueTransformer.h>

#include <string_view>

namespace velvox {

inline constexpr std::string_view VXActivityTypeValueTransformerName = "VXActivityTypeValueTransformerName";

class VXActivityTypeValueTransformer final : public ValueTransformer {
    VX_OBJECT(VXActivityTypeValueTransformer)
public:
    static Ref<VXActivityTypeValueTransformer> create();
    static void registerValueTransformer();

    RefPtr<Object> transformedValue(Object* value) const override;
    RefPtr<Object> reverseTransformedValue(Object* value) const override;
    const ClassInfo& transformedValueClass() const override;

private:
    VXActivityTypeValueTransformer() = default;
};

} // namespace velvox
