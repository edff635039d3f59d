#pragma once

// A number to its decimal string (strings pass unchanged), and back to a double.
// A value of the wrong class is a programming error and raises.

#include <Platform/ValueTransformer.h>

#include <string_view>

namespace velvox {

inline constexpr std::string_view VXNumberToStringValueTransformerName = "VXNumberToStringValueTransformerName";

class VXNumberToStringValueTransformer final : public ValueTransformer {
    VX_OBJECT(VXNumberToStringValueTransformer)
public:
    static Ref<VXNumberToStringValueTransformer> create();
    static void registerValueTransformer();

    RefPtr<Object> transformedValue(Object* value) const override;
    RefPtr<Object> reverseTransformedValue(Object* value) const override;
    const ClassInfo& transformedValueClass() const override;

private:
    VXNumberToStringValueTransformer() = default;
};

} // namespace velvox
