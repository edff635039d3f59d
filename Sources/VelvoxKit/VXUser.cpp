#include "VXUser.h"

#include "VXResourceStore.h"
#include "VXURLStringValueTransformer.h"

namespace velvox {

VX_DEFINE_CLASS(VXUser, VXResource)

ZU_DEFINE_PROPERTIES(VXUser, VXResource, VX_USER_PROPERTIES)

void VXUser::initWithDictionary(Dictionary* dictionary)
{
    updateWithDictionary(dictionary);
    m_followingMe = -1;
    m_followedByMe = -1;
}

void VXUser::initWithCoder(KeyedUnarchiver& coder)
{
    VXResource::initWithCoder(coder);
    m_followingMe = -1;
    m_followedByMe = -1;
}

bool VXUser::updateWithDictionary(Dictionary* dictionary)
{
    m_fullUserRepresentation = m_fullUserRepresentation || (dictionary && dictionary->objectForKey("track_count"));
    return VXResource::updateWithDictionary(dictionary);
}

int32_t VXUser::isFollowingMe(bool forceRefresh)
{
    if (!forceRefresh && m_followingMe != -1)
        return m_followingMe;
    Ref protectedThis { *this };
    auto& store = VXResourceStore::shared();
    m_followingMe = store.meIsFollowedByUserForIdentifier(resourceIdentifier(), [protectedThis](Number* result, Error*) {
        protectedThis->setValue(result, "followingMe");
    });
    return m_followingMe;
}

int32_t VXUser::isFollowedByMe(bool forceRefresh)
{
    if (!forceRefresh && m_followedByMe != -1)
        return m_followedByMe;
    Ref protectedThis { *this };
    auto& store = VXResourceStore::shared();
    m_followedByMe = store.meIsFollowingUserForIdentifier(resourceIdentifier(), [protectedThis](Number* result, Error*) {
        int32_t value = result ? static_cast<int32_t>(result->intValue()) : -1;
        if (value == protectedThis->m_followedByMe)
            return;
        protectedThis->willChangeValueForKey("followedByMe");
        protectedThis->m_followedByMe = value;
        protectedThis->didChangeValueForKey("followedByMe");
    });
    return m_followedByMe;
}

void VXUser::setFollowedByMe(int32_t followedByMe)
{
    if (followedByMe == -1 || followedByMe == m_followedByMe)
        return;
    if (followedByMe != 0 && followedByMe != 1)
        return;
    Ref protectedThis { *this };
    auto done = [protectedThis, followedByMe](Object*, Error* error) {
        if (!error)
            protectedThis->applyFollowedByMe(followedByMe);
    };
    auto& store = VXResourceStore::shared();
    if (followedByMe == 1)
        store.startFollowingUserForIdentifier(resourceIdentifier(), done);
    else
        store.stopFollowingByUserForIdentifier(resourceIdentifier(), done);
}

void VXUser::applyFollowedByMe(int32_t followedByMe)
{
    if (followedByMe == m_followedByMe)
        return;
    Ref protectedThis { *this };
    willChangeValueForKey("followedByMe");
    m_followedByMe = followedByMe;
    didChangeValueForKey("followedByMe");
}

RefPtr<Image> VXUser::avatarImage()
{
    if (!avatarURL())
        return nullptr;
    return loadImage(avatarURL(), "avatarImage", VXUserAvatarImageDidLoadNotification);
}

RefPtr<Image> VXUser::avatar300Image()
{
    if (!avatarURL())
        return nullptr;
    auto url = URL::create(detail::replacingLargeWith300(avatarURL()->absoluteString()->view()));
    return loadImage(url.get(), "avatar300Image", VXUserAvatar300ImageDidLoadNotification);
}

// The follow relations are readable by key, and "followingMe" is set by key
// when an answer arrives, so that observers are told.
const ZUPropertyAccessor* VXUser::accessorForKey(std::string_view key) const
{
    if (key == "followingMe") {
        static const detail::ZUMemberAccessor<VXUser, int32_t> accessor(&VXUser::m_followingMe);
        return &accessor;
    }
    if (key == "followedByMe") {
        static const detail::ZUMemberAccessor<VXUser, int32_t> accessor(&VXUser::m_followedByMe);
        return &accessor;
    }
    return VXResource::accessorForKey(key);
}

RefPtr<Object> VXUser::valueForKey(std::string_view key) const
{
    if (key == "hasFullUserRepresentation" || key == "fullUserRepresentation")
        return Number::withBool(m_fullUserRepresentation);
    if (key == "hasPrimaryEmailConfirmed")
        return Number::withBool(primaryEmailConfirmed());
    return VXResource::valueForKey(key);
}

} // namespace velvox
