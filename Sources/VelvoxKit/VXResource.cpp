#include "VXResource.h"

#include "VXNumberToStringValueTransformer.h"

#include <Platform/NotificationCenter.h>
#include <ZUKit/ZUCoalescedNotification.h>
#include <ZUKit/ZULoadingImageCache.h>

namespace velvox {

VX_DEFINE_CLASS(VXResource, ZUObject)

ZU_DEFINE_PROPERTIES(VXResource, ZUObject, VX_RESOURCE_PROPERTIES)

Ref<String> VXResource::description() const
{
    return String::format("<%@ 0x%08X resourceIdentifier = %@>", className(), this, m_resourceIdentifier);
}

RefPtr<Image> VXResource::loadImage(URL* url, std::string_view key, std::string_view notification)
{
    if (!url)
        return nullptr;
    Ref protectedThis { *this };
    return ZULoadingImageCache::sharedLoadingImageCache().cachedImageForURL(url, false,
        [protectedThis, key, notification](Image*, Error* error) {
            if (error)
                return;
            protectedThis->willChangeValueForKey(key);
            protectedThis->didChangeValueForKey(key);
            zu_postCoalenscedNotificationName(notification, protectedThis.ptr());
        });
}

std::function<void(Object*, Error*)> VXResource::relatedResourceHandler(std::string_view errorFormat, Posting posting)
{
    Ref protectedThis { *this };
    return [protectedThis, errorFormat, posting](Object*, Error* error) {
        if (error) {
            VXLog(errorFormat, error->localizedDescription());
            return;
        }
        if (posting == Posting::Coalesced)
            zu_postCoalenscedNotificationName(VXResourceAttributesDidChangeNotification, protectedThis.ptr());
        else
            NotificationCenter::defaultCenter().postNotification(VXResourceAttributesDidChangeNotification, protectedThis.ptr());
    };
}

std::string detail::replacingLargeWith300(std::string_view urlText)
{
    static constexpr std::string_view large = "-large", sized = "-t300x300";
    std::string text(urlText);
    for (size_t at = text.find(large); at != std::string::npos; at = text.find(large, at + sized.size()))
        text.replace(at, large.size(), sized);
    return text;
}

} // namespace velvox
