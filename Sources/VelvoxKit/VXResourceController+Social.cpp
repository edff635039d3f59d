// The store's social graph: follow checks and follow changes of the signed-in user.

#include "VXResourceController.h"

#include <Platform/Platform.h>

namespace velvox {

int32_t VXResourceController::checkFollow(bool following, String* identifier, FollowCheckBlock block, Subscription* subscription)
{
    checkThread(__func__);
    if (!m_apiController)
        return -2;
    Ref protectedThis { *this };
    RefPtr<String> protectedIdentifier = identifier;
    auto answer = [protectedThis, protectedIdentifier, block = std::move(block)](VXAPIController*, Object* json, Error* error) {
        Ref<Number> result = Number::create(int32_t(-1));
        RefPtr<Error> failure = error;
        if (!error) {
            result = Number::create(int32_t(1));
            // The status says yes; a body that is no record only leaves the map alone.
            if (protectedThis->options().unreadableAnswerPolicy == VXUnreadableAnswerPolicy::Raise || is<Dictionary>(json)) {
                failure = protectedThis->readAnswer(answerAbout("user", protectedIdentifier.get()), [&] {
                    protectedThis->updateCacheForResource<VXUser>(protectedIdentifier.get(), dynamicDowncast<Dictionary>(json));
                });
            }
            if (failure)
                result = Number::create(int32_t(-1));
        } else if (error->code() == 404) {
            result = Number::create(int32_t(0));
        }
        if (block)
            block(result.ptr(), failure.get());
    };
    if (following)
        m_apiController->meIsFollowingUserForIdentifier(identifier, std::move(answer), subscription);
    else
        m_apiController->meIsFollowedByUserForIdentifier(identifier, std::move(answer), subscription);
    // Pending: a caller stores it so that a second question does not ask again.
    return -2;
}

int32_t VXResourceController::meIsFollowingUserForIdentifier(String* identifier, FollowCheckBlock block, Subscription* subscription)
{
    return checkFollow(true, identifier, std::move(block), subscription);
}

int32_t VXResourceController::meIsFollowedByUserForIdentifier(String* identifier, FollowCheckBlock block, Subscription* subscription)
{
    return checkFollow(false, identifier, std::move(block), subscription);
}

void VXResourceController::startFollowingUserForIdentifier(String* identifier, ResultBlock block, Subscription* subscription)
{
    checkThread(__func__);
    if (!m_apiController)
        return;
    m_apiController->startFollowingUserForIdentifier(identifier, [block = std::move(block)](VXAPIController*, Object* json, Error* error) {
        if (block)
            block(json, error);
    },
        subscription);
}

void VXResourceController::stopFollowingByUserForIdentifier(String* identifier, ResultBlock block, Subscription* subscription)
{
    checkThread(__func__);
    if (!m_apiController)
        return;
    m_apiController->stopFollowingByUserForIdentifier(identifier, [block = std::move(block)](VXAPIController*, Object* json, Error* error) {
        if (block)
            block(json, error);
    },
        subscription);
}

} // namespace velvox
