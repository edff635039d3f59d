#pragma once

// A URL string to a URL (strictly parsed) and back.
// A value of the wrong class is a programming error and raises.

#include <Platform/ValueTransformer.h>

#include <string_view>

namespace velvox {

inline constexpr std::string_view VXURLStringValueTransformerName = "VXURLStringValueTransformerName";

class VXURLStringValueTransformer final : public ValueTransformer {
    VX_OBJECT(VXURLStringValueTransformer)
public:
    static Ref<VXURLStringValueTransformer> create();
    static void registerValueTransformer();

    RefPtr<Object> transformedValue(Object* value) const override;
    RefPtr<Object> reverseTransformedValue(Object* value) const override;
    const ClassInfo& transformedValueClass() const override;

private:
    VXURLStringValueTransformer() = default;
};

} // namespace velvox
