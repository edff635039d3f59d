// The store's collections: the factories of every list the host shows, and
// the loader through which they fetch their pages.

#include "VXResourceController.h"

#include <Platform/Platform.h>

namespace velvox {

namespace {

// The lists the store makes: each one's resource path ("%@" stands for the
// identifier, as one segment) and what a call without its identifier
// raises. The paths keep their leading "/" or its absence as the service's
// interface gives them.
template<typename Collection>
struct List {
    const char* path;
    const char* missing { nullptr }; // null: no identifier
};

constexpr List<VXActivityCollectionController> incoming { "me/activities/tracks" };
constexpr List<VXActivityCollectionController> exclusive { "me/activities/tracks/exclusive" };
constexpr List<VXTrackCollectionController> meFavorites { "me/favorites" };
constexpr List<VXUserCollectionController> meFollowers { "me/followers" };
constexpr List<VXUserCollectionController> meFollowings { "me/followings" };
constexpr List<VXTrackCollectionController> meTracks { "me/tracks" };
constexpr List<VXUserCollectionController> userFollowers { "/users/%@/followers", "A userIdentifier is required to retrieve followers" };
constexpr List<VXUserCollectionController> userFollowings { "/users/%@/followings", "A userIdentifier is required to retrieve followings" };
constexpr List<VXTrackCollectionController> userTracks { "/users/%@/tracks", "A userIdentifier is required to retrieve tracks by user" };
constexpr List<VXTrackCollectionController> userFavorites { "/users/%@/favorites", "A userIdentifier is required to retrieve favorites by user" };
constexpr List<VXUserCollectionController> trackFavoriters { "/tracks/%@/favoriters", "trackIdentifier needed find out which users have favorites" };
constexpr List<VXCommentCollectionController> trackComments { "/tracks/%@/comments", "A trackIdentifier is required to comments on a track." };
constexpr List<VXTrackCollectionController> searchedUserTracks { "/users/%@/tracks" };
constexpr List<VXTrackCollectionController> searchedTracks { "/tracks" };
constexpr List<VXUserCollectionController> searchedUsers { "/users" };

template<typename Collection>
Ref<Collection> make(const List<Collection>& list, String* identifier = nullptr, Dictionary* parameters = nullptr)
{
    if (!list.missing && !identifier)
        return Collection::create(*String::create(list.path), parameters);
    if (list.missing)
        VXAssert(identifier, "%s", list.missing);
    return Collection::create(*String::create(format(list.path, VXVelvoxAPI::pathSegment(identifier))), parameters);
}

// "q" first, then the options, which win.
Ref<Dictionary> searchParameters(String& query, Dictionary* options)
{
    auto parameters = MutableDictionary::create();
    parameters->setObject(&query, "q");
    if (options) {
        for (auto& entry : *options)
            parameters->setObject(entry.object, entry.key);
    }
    return parameters;
}

} // namespace

Ref<VXActivityCollectionController> VXResourceController::incomingActivities() { return make(incoming); }
Ref<VXActivityCollectionController> VXResourceController::exclusiveActivities() { return make(exclusive); }
Ref<VXTrackCollectionController> VXResourceController::favoriteTracks() { return make(meFavorites); }
Ref<VXUserCollectionController> VXResourceController::usersFollowingMe() { return make(meFollowers); }
Ref<VXUserCollectionController> VXResourceController::usersFollowedByMe() { return make(meFollowings); }
Ref<VXTrackCollectionController> VXResourceController::meUserTracks() { return make(meTracks); }
Ref<VXUserCollectionController> VXResourceController::usersFollowingUserForIdentifier(String* userIdentifier) { return make(userFollowers, userIdentifier); }
Ref<VXUserCollectionController> VXResourceController::usersFollowedByUserForIdentifier(String* userIdentifier) { return make(userFollowings, userIdentifier); }
Ref<VXTrackCollectionController> VXResourceController::tracksForUserIdentifier(String* userIdentifier) { return make(userTracks, userIdentifier); }
Ref<VXTrackCollectionController> VXResourceController::favoritesForUserIdentifier(String* userIdentifier) { return make(userFavorites, userIdentifier); }
Ref<VXUserCollectionController> VXResourceController::favoritersForTrackIdentifier(String* trackIdentifier) { return make(trackFavoriters, trackIdentifier); }
Ref<VXCommentCollectionController> VXResourceController::commentsForTrackIdentifier(String* trackIdentifier) { return make(trackComments, trackIdentifier); }

Ref<VXTrackCollectionController> VXResourceController::tracksForUserIdentifier(String* userIdentifier, String* searchQuery, Dictionary* searchOptions)
{
    // The query is checked first, although the interface names it second.
    VXAssert(searchQuery, "Invalid parameter not satisfying: %s", "query");
    VXAssert(userIdentifier, "Invalid parameter not satisfying: %s", "userIdentifier");
    return make(searchedUserTracks, userIdentifier, searchParameters(*searchQuery, searchOptions).ptr());
}

Ref<VXTrackCollectionController> VXResourceController::tracksForSearchQuery(String* query, Dictionary* searchOptions)
{
    VXAssert(query, "Invalid parameter not satisfying: %s", "query");
    return make(searchedTracks, nullptr, searchParameters(*query, searchOptions).ptr());
}

Ref<VXUserCollectionController> VXResourceController::usersForSearchQuery(String* query)
{
    VXAssert(query, "Invalid parameter not satisfying: %s", "query");
    return make(searchedUsers, nullptr, searchParameters(*query, nullptr).ptr());
}

void VXResourceController::loadForCollectionController(VXRemoteCollectionController& collection)
{
    checkThread(__func__);
    loadForCollectionController(collection, nullptr);
}

void VXResourceController::loadForCollectionController(VXRemoteCollectionController& collection, Subscription* subscription)
{
    checkThread(__func__);
    if (!m_apiController)
        return;
    // The block keeps the collection alive until its page has come.
    Ref<VXRemoteCollectionController> protectedCollection { collection };
    Ref protectedThis { *this };
    auto unchanged = [protectedThis, protectedCollection](VXAPIController*, Data& body) {
        if (!protectedCollection->takesUnchangedPages())
            return false;
        auto items = protectedThis->itemsOfUnchangedPage(body);
        if (!items)
            return false;
        protectedCollection->remoteConnectionDidReceiveNewItems(protectedCollection->itemsFromUnchangedPage(*items).ptr());
        return true;
    };
    m_apiController->loadForCollectionController(collection, [protectedThis, protectedCollection](VXAPIController* controller, Object* json, Error* error) {
        if (error) {
            protectedCollection->remoteConnectionDidFailReceivingItemsWithError(error);
            return;
        }
        RefPtr<Array> items;
        if (protectedThis->options().unreadableAnswerPolicy == VXUnreadableAnswerPolicy::Report) {
            auto what = [&]() -> std::string { return "a page of " + protectedCollection->resource()->str(); };
            if (auto failure = protectedThis->readAnswer(what, [&] { items = protectedCollection->itemsFromResult(json); })) {
                protectedCollection->remoteConnectionDidFailReceivingItemsWithError(failure.get());
                return;
            }
        } else {
            try {
                items = protectedCollection->itemsFromResult(json);
            } catch (const Exception& exception) {
                // An answer of the wrong shape raises, as the interface says; the
                // load ends first, so that the collection can be loaded again.
                protectedCollection->remoteConnectionDidFailReceivingItemsWithError(
                    Error::create(VXRemoteCollectionErrorDomain, 1, exception.reason()).ptr());
                throw;
            }
        }
        if (items && protectedCollection->takesUnchangedPages())
            protectedThis->rememberPage(controller->answerBeingDelivered(), *items);
        protectedCollection->remoteConnectionDidReceiveNewItems(items.get());
    },
        std::move(unchanged), subscription);
}

void VXResourceController::rememberPage(Data* body, const Array& items)
{
    constexpr size_t memos = 16;
    constexpr size_t largestBody = 1024 * 1024;
    auto* api = m_apiController ? m_apiController->api() : nullptr;
    // Only a kept answer can come back unchanged.
    if (!body || body->length() > largestBody || !api || !api->answerCache().enabled)
        return;
    std::erase_if(m_pageMemos, [&](const PageMemo& memo) { return memo.body.ptr() == body; });
    PageMemo memo { *body, m_identityMap.generation(), {}, {} };
    memo.items.reserve(items.count());
    memo.changeCounts.reserve(items.count());
    for (auto* item : items) {
        auto* resource = dynamicDowncast<VXResource>(item);
        auto* identifier = resource ? resource->resourceIdentifier() : nullptr;
        if (!identifier || cachedResource(resource->className(), identifier).get() != resource)
            return; // not all of it is the map's: read again when it comes again
        memo.items.emplace_back(*resource);
        memo.changeCounts.push_back(resource->changeCount());
    }
    if (m_pageMemos.size() == memos)
        m_pageMemos.erase(m_pageMemos.begin());
    m_pageMemos.push_back(std::move(memo));
}

RefPtr<Array> VXResourceController::itemsOfUnchangedPage(const Data& body)
{
    auto memo = std::find_if(m_pageMemos.begin(), m_pageMemos.end(), [&](const PageMemo& memo) { return memo.body.ptr() == &body; });
    if (memo == m_pageMemos.end())
        return nullptr;
    bool valid = memo->generation == m_identityMap.generation();
    for (size_t index = 0; valid && index < memo->items.size(); ++index)
        valid = downcast<VXResource>(memo->items[index].get())->changeCount() == memo->changeCounts[index];
    if (!valid) {
        m_pageMemos.erase(memo);
        return nullptr;
    }
    // Confirmed by the service just now: fresh again.
    if (m_identityMap.recordsReceipts())
        m_identityMap.setAnswerMaximumAge(m_options.honoursCacheControl && m_apiController->api() ? m_apiController->api()->maximumAgeOfAnswerBeingDelivered() : -1);
    for (auto& item : memo->items)
        m_identityMap.noteReceived(*downcast<VXResource>(item.get()));
    return Array::create(std::vector<Ref<Object>>(memo->items));
}

} // namespace velvox
