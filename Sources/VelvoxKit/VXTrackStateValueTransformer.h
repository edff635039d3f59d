#pragma once

// A track state string to its number (storing 1, stored 2, finished 3, failed 4; else 0), and back.
// A value of the wrong class is a programming error and raises.

#include <Platform/ValueTransformer.h>

#include <string_view>

namespace velvox {

inline constexpr std::string_view VXTrackStateValueTransformerName = "VXTrackStateValueTransformerName";

class VXTrackStateValueTransformer final : public ValueTransformer {
    VX_OBJECT(VXTrackStateValueTransformer)
public:
    static Ref<VXTrackStateValueTransformer> create();
    static void registerValueTransformer();

    RefPtr<Object> transformedValue(Object* value) const override;
    RefPtr<Object> reverseTransformedValue(Object* value) const override;
    const ClassInfo& transformedValueClass() const override;

private:
    VXTrackStateValueTransformer() = default;
};

} // namespace velvox
