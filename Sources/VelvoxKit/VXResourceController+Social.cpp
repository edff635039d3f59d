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
    if (following && identifier) {
        // A change under way, or waiting in the journal, answers for the
        // service until it is settled.
        std::optional<int32_t> pending;
        if (auto change = m_changes.find("follow " + identifier->str()); change != m_changes.end())
            pending = change->second->desired;
        else if (m_options.offlineChanges)
            pending = m_journal.pendingValue(true, identifier->view(), journalAccount());
        if (pending && block) {
            auto slot = std::make_shared<FollowCheckBlock>(std::move(block));
            int32_t value = *pending;
            RunLoop::current().post([protectedThis, slot, value] {
                if (auto answer = std::exchange(*slot, nullptr))
                    answer(Number::create(value).ptr(), nullptr);
            });
            if (subscription)
                *subscription = m_affinity.token([weakSlot = std::weak_ptr<FollowCheckBlock>(slot)] {
                    if (auto slot = weakSlot.lock())
                        *slot = nullptr;
                },
                    slot);
            return -2;
        }
    }
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
    changeFollow(true, identifier, std::move(block), subscription);
}

void VXResourceController::stopFollowingByUserForIdentifier(String* identifier, ResultBlock block, Subscription* subscription)
{
    checkThread(__func__);
    changeFollow(false, identifier, std::move(block), subscription);
}

void VXResourceController::favoriteTrackForIdentifier(String* identifier, ResultBlock block, Subscription* subscription)
{
    checkThread(__func__);
    changeFavorite(true, identifier, std::move(block), subscription);
}

void VXResourceController::unfavoriteTrackForIdentifier(String* identifier, ResultBlock block, Subscription* subscription)
{
    checkThread(__func__);
    changeFavorite(false, identifier, std::move(block), subscription);
}

namespace {

// The answer as the caller's block takes it.
VXAPICallbackBlock answering(VXResourceStore::ResultBlock block)
{
    return [block = std::move(block)](VXAPIController*, Object* json, Error* error) {
        if (block)
            block(json, error);
    };
}

} // namespace

void VXResourceController::changeFollow(bool follow, String* identifier, ResultBlock block, Subscription* subscription)
{
    if (!m_apiController)
        return;
    // Held by the store's changes at most, so the store itself need not be kept.
    ChangeSender send = [this, protectedIdentifier = RefPtr<String>(identifier)](int32_t value, VXAPICallbackBlock answer, Subscription* token) {
        if (value == 1)
            m_apiController->startFollowingUserForIdentifier(protectedIdentifier.get(), std::move(answer), token);
        else
            m_apiController->stopFollowingByUserForIdentifier(protectedIdentifier.get(), std::move(answer), token);
    };
    auto user = identifier ? cachedResource<VXUser>(identifier) : nullptr;
    VXChangeJournal::Entry entry { follow ? VXChangeJournal::Kind::Follow : VXChangeJournal::Kind::Unfollow, identifier ? identifier->str() : std::string() };
    entry.previous = user ? user->followedByMeValue() : -1;
    if (identifier && journalChange(std::move(entry), block, subscription))
        return;
    if (!m_options.optimisticChanges || !identifier) {
        send(follow ? 1 : 0, answering(std::move(block)), subscription);
        return;
    }
    auto apply = [user](int32_t value) {
        if (user)
            user->applyFollowedByMe(value);
    };
    requestChange("follow " + identifier->str(), follow ? 1 : 0, user ? user->followedByMeValue() : -1, apply, std::move(send), std::move(block), subscription);
}

void VXResourceController::changeFavorite(bool favorite, String* identifier, ResultBlock block, Subscription* subscription)
{
    VXAssert(identifier, "a track identifier is needed to change a favorite");
    if (!m_apiController)
        return;
    Ref protectedThis { *this };
    RefPtr<String> protectedIdentifier = identifier;
    auto apply = [protectedThis, protectedIdentifier](int32_t value) {
        auto track = protectedThis->cachedResource<VXTrack>(protectedIdentifier.get());
        if (track && value >= 0 && track->userFavorite() != (value == 1))
            track->setValue(Number::create(value == 1), "userFavorite");
    };
    ChangeSender send = [this, protectedIdentifier](int32_t value, VXAPICallbackBlock answer, Subscription* token) {
        if (value == 1)
            m_apiController->favoriteTrackIdentifer(protectedIdentifier.get(), std::move(answer), token);
        else
            m_apiController->unfavoriteTrackIdentifer(protectedIdentifier.get(), std::move(answer), token);
    };
    int32_t value = favorite ? 1 : 0;
    auto track = cachedResource<VXTrack>(identifier);
    VXChangeJournal::Entry entry { favorite ? VXChangeJournal::Kind::Favorite : VXChangeJournal::Kind::Unfavorite, identifier->str() };
    entry.previous = track ? int32_t(track->userFavorite()) : -1;
    if (journalChange(std::move(entry), block, subscription))
        return;
    if (!m_options.optimisticChanges) {
        send(value, [apply, value, block = std::move(block)](VXAPIController*, Object* json, Error* error) {
            if (!error)
                apply(value);
            if (block)
                block(json, error);
        },
            subscription);
        return;
    }
    requestChange("favorite " + identifier->str(), value, track ? int32_t(track->userFavorite()) : -1, apply, std::move(send), std::move(block), subscription);
}

void VXResourceController::requestChange(const std::string& target, int32_t desired, int32_t current, std::function<void(int32_t)> apply,
    ChangeSender send, ResultBlock block, Subscription* subscription)
{
    auto& change = m_changes[target];
    if (!change) {
        change = std::make_shared<Change>();
        change->rollback = current;
        change->apply = std::move(apply);
        change->send = std::move(send);
    }
    change->desired = desired;
    auto slot = std::make_shared<ResultBlock>(std::move(block));
    change->callers.push_back(slot);
    if (subscription)
        // The change goes on; only the caller's block is dropped.
        *subscription = m_affinity.token([weakSlot = std::weak_ptr<ResultBlock>(slot)] {
            if (auto slot = weakSlot.lock())
                *slot = nullptr;
        },
            slot);
    auto keep = change;
    keep->apply(desired);
    sendChange(target);
}

void VXResourceController::sendChange(const std::string& target)
{
    auto found = m_changes.find(target);
    if (found == m_changes.end() || found->second->inFlight)
        return;
    auto change = found->second;
    int32_t sending = change->desired;
    change->inFlight = true;
    Ref protectedThis { *this };
    change->send(sending, [protectedThis, target, sending](VXAPIController*, Object* json, Error* error) {
        auto found = protectedThis->m_changes.find(target);
        if (found == protectedThis->m_changes.end())
            return;
        auto change = found->second;
        change->inFlight = false;
        if (error) {
            if (change->desired == sending) {
                // Nobody wants anything else: back to what the service last agreed to.
                change->apply(change->confirmed == Change::unknownToTheService ? change->rollback : change->confirmed);
                protectedThis->settleChange(target, nullptr, error);
                return;
            }
        } else
            change->confirmed = sending;
        if (change->desired == change->confirmed)
            protectedThis->settleChange(target, json, nullptr);
        else
            protectedThis->sendChange(target); // changed again meanwhile: the latest wish goes out
    },
        nullptr);
}

void VXResourceController::settleChange(const std::string& target, Object* answer, Error* error)
{
    auto found = m_changes.find(target);
    if (found == m_changes.end())
        return;
    auto change = found->second;
    m_changes.erase(found);
    RefPtr<Object> protectedAnswer = answer;
    for (auto& slot : change->callers) {
        if (auto block = std::exchange(*slot, nullptr))
            block(protectedAnswer.get(), error);
    }
}

} // namespace velvox
