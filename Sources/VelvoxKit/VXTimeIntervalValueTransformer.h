#pragma once

// A count of JSON units (seconds or milliseconds) to seconds as a double, and back.
// A value of the wrong class is a programming error and raises.

#include <Platform/ValueTransformer.h>

#include <string_view>

namespace velvox {

inline constexpr std::string_view VXTimeIntervalFromSecondsValueTransformerName = "VXTimeIntervalFromSecondsValueTransformerName";
inline constexpr std::string_view VXTimeIntervalFromMillisecondsValueTransformerName = "VXTimeIntervalFromMillisecondsValueTransformerName";

class VXTimeIntervalValueTransformer final : public ValueTransformer {
    VX_OBJECT(VXTimeIntervalValueTransformer)
public:
    static Ref<VXTimeIntervalValueTransformer> create();
    static void registerValueTransformer();

    RefPtr<Object> transformedValue(Object* value) const override;
    RefPtr<Object> reverseTransformedValue(Object* value) const override;
    const ClassInfo& transformedValueClass() const override;
    // initWithScalingFactor: the number of JSON units per second.
    static Ref<VXTimeIntervalValueTransformer> create(int64_t scalingFactor);
    int64_t scalingFactor() const { return m_scalingFactor; }

private:
    explicit VXTimeIntervalValueTransformer(int64_t scalingFactor)
        : m_scalingFactor(scalingFactor)
    {
    }
    int64_t m_scalingFactor;
};

} // namespace velvox
