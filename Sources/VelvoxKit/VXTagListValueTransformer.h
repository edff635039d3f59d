#pragma once

// A tag list ("rock \"hip hop\"") to an array of tags and back.
// A value of the wrong class is a programming error and raises.

#include <Platform/ValueTransformer.h>

#include <string_view>

namespace velvox {

inline constexpr std::string_view VXTagListValueTransformerName = "VXTagListValueTransformerName";

class VXTagListValueTransformer final : public ValueTransformer {
    VX_OBJECT(VXTagListValueTransformer)
public:
    static Ref<VXTagListValueTransformer> create();
    static void registerValueTransformer();

    RefPtr<Object> transformedValue(Object* value) const override;
    RefPtr<Object> reverseTransformedValue(Object* value) const override;
    const ClassInfo& transformedValueClass() const override;

private:
    VXTagListValueTransformer() = default;
};

} // namespace velvox
