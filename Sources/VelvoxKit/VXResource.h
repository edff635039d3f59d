#pragma once

// The base of every model object that the service identifies by an id:
// tracks, users and comments. Identity is decided by the resource store,
// which keeps one object per class and identifier; a resource defines no
// equality of its own.

#include <ZUKit/ZUObject.h>

#include <string_view>

namespace velvox {

inline constexpr std::string_view VXResourceAttributesDidChangeNotification = "VXResourceAttributesDidChangeNotification";

class VXResource : public ZUObject {
    VX_OBJECT(VXResource)
    ZU_DESCRIBED_CLASS()
public:
    static Ref<VXResource> create(Dictionary* dictionary) { return ZUObject::create<VXResource>(dictionary); }

    // A decimal string, also where the service sends a number.
    String* resourceIdentifier() const { return m_resourceIdentifier.get(); }
    void setResourceIdentifier(String* identifier) { m_resourceIdentifier = identifier; }

    // "<VXResource 0x0000ABCD resourceIdentifier = 42>".
    Ref<String> description() const override;

protected:
    friend class ZUObject;
    VXResource() = default;

private:
    RefPtr<String> m_resourceIdentifier;
};

} // namespace velvox
