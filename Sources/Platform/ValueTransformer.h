#pragma once

// Named conversions between model values and their external form, kept in a
// process-wide registry.

#include "Object.h"

#include <cstdint>
#include <string_view>

namespace velvox {

class ValueTransformer : public Object {
    VX_OBJECT(ValueTransformer)
public:
    // Forward: the external value to the model value. The base passes it through.
    virtual RefPtr<Object> transformedValue(Object* value) const;
    // Reverse: the model value back; raises when reversing is not allowed.
    virtual RefPtr<Object> reverseTransformedValue(Object* value) const;
    virtual bool allowsReverseTransformation() const { return true; }
    // The kind of value that transformedValue() makes.
    virtual const ClassInfo& transformedValueClass() const { return Object::s_info; }

    // Registering a name again replaces the transformer; null removes it.
    static void setValueTransformer(ValueTransformer*, std::string_view name);
    static RefPtr<ValueTransformer> valueTransformerForName(std::string_view name);
    // Changes with every registration, so that a cached lookup can tell it is stale.
    static uint64_t registrationGeneration();

protected:
    ValueTransformer() = default;
};

} // namespace velvox
