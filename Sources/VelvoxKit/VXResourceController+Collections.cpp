// The store's collections: the factories of every list the host shows, and
// the loader through which they fetch their pages.

#include "VXResourceController.h"

#include <Platform/Platform.h>

namespace velvox {

namespace {

template<typename Collection>
Ref<Collection> collectionOn(std::string_view resource, Dictionary* parameters = nullptr)
{
    auto path = String::create(resource);
    return Collection::create(path, parameters);
}

} // namespace

Ref<VXActivityCollectionController> VXResourceController::incomingActivities()
{
    return collectionOn<VXActivityCollectionController>("me/activities/tracks");
}

Ref<VXActivityCollectionController> VXResourceController::exclusiveActivities()
{
    return collectionOn<VXActivityCollectionController>("me/activities/tracks/exclusive");
}

Ref<VXTrackCollectionController> VXResourceController::favoriteTracks()
{
    return collectionOn<VXTrackCollectionController>("me/favorites");
}

Ref<VXUserCollectionController> VXResourceController::usersFollowingMe()
{
    return collectionOn<VXUserCollectionController>("me/followers");
}

Ref<VXUserCollectionController> VXResourceController::usersFollowedByMe()
{
    return collectionOn<VXUserCollectionController>("me/followings");
}

Ref<VXTrackCollectionController> VXResourceController::meUserTracks()
{
    return collectionOn<VXTrackCollectionController>("me/tracks");
}

Ref<VXUserCollectionController> VXResourceController::usersFollowingUserForIdentifier(String* userIdentifier)
{
    VXAssert(userIdentifier, "A userIdentifier is required to retrieve followers");
    return collectionOn<VXUserCollectionController>(format("/users/%@/followers", VXVelvoxAPI::pathSegment(userIdentifier)));
}

Ref<VXUserCollectionController> VXResourceController::usersFollowedByUserForIdentifier(String* userIdentifier)
{
    VXAssert(userIdentifier, "A userIdentifier is required to retrieve followings");
    return collectionOn<VXUserCollectionController>(format("/users/%@/followings", VXVelvoxAPI::pathSegment(userIdentifier)));
}

Ref<VXTrackCollectionController> VXResourceController::tracksForUserIdentifier(String* userIdentifier)
{
    VXAssert(userIdentifier, "A userIdentifier is required to retrieve tracks by user");
    return collectionOn<VXTrackCollectionController>(format("/users/%@/tracks", VXVelvoxAPI::pathSegment(userIdentifier)));
}

Ref<VXTrackCollectionController> VXResourceController::favoritesForUserIdentifier(String* userIdentifier)
{
    VXAssert(userIdentifier, "A userIdentifier is required to retrieve favorites by user");
    return collectionOn<VXTrackCollectionController>(format("/users/%@/favorites", VXVelvoxAPI::pathSegment(userIdentifier)));
}

namespace {

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

Ref<VXTrackCollectionController> VXResourceController::tracksForUserIdentifier(String* userIdentifier, String* searchQuery, Dictionary* searchOptions)
{
    // The query is checked first, although the interface names it second.
    VXAssert(searchQuery, "Invalid parameter not satisfying: %s", "query");
    VXAssert(userIdentifier, "Invalid parameter not satisfying: %s", "userIdentifier");
    return collectionOn<VXTrackCollectionController>(format("/users/%@/tracks", VXVelvoxAPI::pathSegment(userIdentifier)), searchParameters(*searchQuery, searchOptions).ptr());
}

Ref<VXTrackCollectionController> VXResourceController::tracksForSearchQuery(String* query, Dictionary* searchOptions)
{
    VXAssert(query, "Invalid parameter not satisfying: %s", "query");
    return collectionOn<VXTrackCollectionController>("/tracks", searchParameters(*query, searchOptions).ptr());
}

Ref<VXUserCollectionController> VXResourceController::usersForSearchQuery(String* query)
{
    VXAssert(query, "Invalid parameter not satisfying: %s", "query");
    return collectionOn<VXUserCollectionController>("/users", searchParameters(*query, nullptr).ptr());
}

Ref<VXUserCollectionController> VXResourceController::favoritersForTrackIdentifier(String* trackIdentifier)
{
    VXAssert(trackIdentifier, "trackIdentifier needed find out which users have favorites");
    return collectionOn<VXUserCollectionController>(format("/tracks/%@/favoriters", VXVelvoxAPI::pathSegment(trackIdentifier)));
}

Ref<VXCommentCollectionController> VXResourceController::commentsForTrackIdentifier(String* trackIdentifier)
{
    VXAssert(trackIdentifier, "A trackIdentifier is required to comments on a track.");
    return collectionOn<VXCommentCollectionController>(format("/tracks/%@/comments", VXVelvoxAPI::pathSegment(trackIdentifier)));
}

void VXResourceController::loadForCollectionController(VXRemoteCollectionController& collection)
{
    if (!m_apiController)
        return;
    // The block keeps the collection alive until its page has come.
    Ref<VXRemoteCollectionController> protectedCollection { collection };
    Ref protectedThis { *this };
    m_apiController->loadForCollectionController(collection, [protectedThis, protectedCollection](VXAPIController*, Object* json, Error* error) {
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
        protectedCollection->remoteConnectionDidReceiveNewItems(items.get());
    });
}

} // namespace velvox
