#include "VXComment.h"

#include "VXAPITimestampValueTransformer.h"
#include "VXNumberToStringValueTransformer.h"
#include "VXResourceStore.h"
#include "VXTimeIntervalValueTransformer.h"
#include "VXTrack.h"
#include "VXURLStringValueTransformer.h"
#include "VXUser.h"

namespace velvox {

VX_DEFINE_CLASS(VXComment, VXResource)

ZU_DEFINE_PROPERTIES(VXComment, VXResource, VX_COMMENT_PROPERTIES)

void VXComment::initWithDictionary(Dictionary* dictionary)
{
    // The timed flag comes with the record, at creation as at every update.
    updateWithDictionary(dictionary);
}

bool VXComment::updateWithDictionary(Dictionary* dictionary)
{
    setTimedComment(dictionary && dictionary->objectForKey("timestamp"));
    return VXResource::updateWithDictionary(dictionary);
}

void VXComment::setTimedComment(bool timed)
{
    if (timed == m_timedComment)
        return;
    setDeclaredProperty(m_timedComment, timed, "timedComment");
}

RefPtr<VXTrack> VXComment::track()
{
    return track(false);
}

RefPtr<VXTrack> VXComment::track(bool forceRefresh)
{
    if (!trackIdentifier())
        return nullptr;
    return VXResourceStore::shared().trackForIdentifier(trackIdentifier(), forceRefresh,
        relatedResourceHandler("VXComment - Track fetch error: %@", Posting::Plain));
}

RefPtr<VXUser> VXComment::user()
{
    return user(false);
}

RefPtr<VXUser> VXComment::user(bool forceRefresh)
{
    if (!userIdentifier())
        return nullptr;
    // The track model's text, kept for the comment too.
    return VXResourceStore::shared().userForIdentifier(userIdentifier(), forceRefresh,
        relatedResourceHandler("VXTrack - User fetch error: %@", Posting::Plain));
}

RefPtr<Object> VXComment::valueForKey(std::string_view key) const
{
    if (key == "isTimedComment" || key == "timedComment")
        return Number::withBool(m_timedComment);
    if (key == "user")
        return const_cast<VXComment*>(this)->user(false);
    if (key == "track")
        return const_cast<VXComment*>(this)->track(false);
    return VXResource::valueForKey(key);
}

} // namespace velvox
