#pragma once

// A string split at a separator (", " by default) to an array, and back.
// A value of the wrong class is a programming error and raises.

#include <Platform/String.h>
#include <Platform/ValueTransformer.h>

#include <string_view>

namespace velvox {

inline constexpr std::string_view VXStringToArrayValueTransformerName = "VXStringToArrayValueTransformerName";

class VXStringToArrayValueTransformer final : public ValueTransformer {
    VX_OBJECT(VXStringToArrayValueTransformer)
public:
    static Ref<VXStringToArrayValueTransformer> create();
    static void registerValueTransformer();

    RefPtr<Object> transformedValue(Object* value) const override;
    RefPtr<Object> reverseTransformedValue(Object* value) const override;
    const ClassInfo& transformedValueClass() const override;
    // initWithSeparatorString:
    static Ref<VXStringToArrayValueTransformer> create(std::string_view separatorString);
    String& separatorString() const { return m_separatorString; }

private:
    explicit VXStringToArrayValueTransformer(Ref<String>&& separator)
        : m_separatorString(std::move(separator))
    {
    }
    Ref<String> m_separatorString;
};

} // namespace velvox
