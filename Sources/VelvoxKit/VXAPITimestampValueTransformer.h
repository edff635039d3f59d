#pragma once

// Dates of the API, "yyyy/MM/dd HH:mm:ss ZZZ" (2011/03/14 09:26:53 +0000), to dates and back; printed in the local time zone.
// A value of the wrong class is a programming error and raises.

#include <Platform/ValueTransformer.h>
#include <Platform/Values.h>

#include <string_view>

namespace velvox {

inline constexpr std::string_view VXAPITimestampValueTransformerName = "VXAPITimestampValueTransformerName";

class VXAPITimestampValueTransformer final : public ValueTransformer {
    VX_OBJECT(VXAPITimestampValueTransformer)
public:
    static Ref<VXAPITimestampValueTransformer> create();
    static void registerValueTransformer();

    RefPtr<Object> transformedValue(Object* value) const override;
    RefPtr<Object> reverseTransformedValue(Object* value) const override;
    const ClassInfo& transformedValueClass() const override;
    bool allowsReverseTransformation() const override { return true; }

    // The pattern's parts: four-digit year, two-digit month, day, 24-hour
    // hour, minute and second, and a numeric zone offset (+0100).
    static constexpr std::string_view dateFormat = "yyyy/MM/dd HH:mm:ss ZZZ";
    // Null when the text does not follow the pattern.
    static RefPtr<Date> dateFromString(std::string_view);
    // The date in the process's local time zone, in the pattern.
    static Ref<String> stringFromDate(const Date&);

private:
    VXAPITimestampValueTransformer() = default;
};

} // namespace velvox
