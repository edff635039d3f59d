#pragma once

// The base of every model object that the service identifies by an id:
// tracks, users and comments. Identity is decided by the resource store,
// which keeps one object per class and identifier; a resource defines no
// equality of its own.

#include <ZUKit/ZUObject.h>

#include <string_view>

namespace velvox {

inline constexpr std::string_view VXResourceAttributesDidChangeNotification = "VXResourceAttributesDidChangeNotification";

// resourceIdentifier: a decimal string, also where the service sends a number.
#define VX_RESOURCE_PROPERTIES(P) P(String, resourceIdentifier, ResourceIdentifier, "id", VXNumberToStringValueTransformerName)

class VXResource : public ZUObject {
    VX_OBJECT(VXResource)
    ZU_PROPERTIES(VX_RESOURCE_PROPERTIES)
public:
    static Ref<VXResource> create(Dictionary* dictionary) { return ZUObject::create<VXResource>(dictionary); }

    // "<VXResource 0x0000ABCD resourceIdentifier = 42>".
    Ref<String> description() const override;

protected:
    friend class ZUObject;
    VXResource() = default;
};

} // namespace velvox
