#pragma once

// The base of every model object that the service identifies by an id:
// tracks, users and comments. Identity is decided by the resource store,
// which keeps one object per class and identifier; a resource defines no
// equality of its own.

#include <ZUKit/ZUObject.h>

#include <Platform/Image.h>
#include <Platform/Values.h>

#include <functional>

#include <string>
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

    // An image from the shared loading image cache: the image if it is at
    // hand, else null and a load whose successful end announces `key` to
    // observers and posts `notification` (coalesced) with this object.
    RefPtr<Image> loadImage(URL*, std::string_view key, std::string_view notification);
    // The block for a related resource asked of the store: an error is logged
    // with `errorFormat`; an arrival posts VXResourceAttributesDidChangeNotification
    // with this object, coalesced or plain.
    enum class Posting { Plain,
        Coalesced };
    std::function<void(Object*, Error*)> relatedResourceHandler(std::string_view errorFormat, Posting);

private:
    // The identity map's order of use under a memory budget, kept in the
    // object itself so that noting a use costs no lookup: the neighbours in
    // the map's list, the map that lists it (at most one), and the bytes it
    // counted for the object when it was last filed.
    friend class VXIdentityMap;
    VXResource* m_usePrevious { nullptr };
    VXResource* m_useNext { nullptr };
    const void* m_useList { nullptr };
    size_t m_countedBytes { 0 };
};

namespace detail {

// An image URL's text at 300 by 300: every "-large" becomes "-t300x300".
std::string replacingLargeWith300(std::string_view urlText);

} // namespace detail

} // namespace velvox
