#pragma once

// What the models and the collections need from the resource store, and no
// more: they reach the shared store through this interface, so that none of
// them depends on the store's whole header (nor, through it, on every model
// and collection). VXResourceController is the one implementation.

#include <Platform/Object.h>

#include <functional>
#include <string_view>

namespace velvox {

class Dictionary;
class Error;
class Number;
class Object;
class String;
class Subscription;
class VXComment;
class VXRemoteCollectionController;
class VXResource;
class VXTrack;
class VXUser;

class VXResourceStore {
public:
    using UserBlock = std::function<void(VXUser* user, Error* error)>;
    using TrackBlock = std::function<void(VXTrack* track, Error* error)>;
    // Follow checks: a number 1 (yes), 0 (no) or -1 (other error).
    using FollowCheckBlock = std::function<void(Number* result, Error* error)>;
    // Follow changes and uploads: the decoded answer as it came.
    using ResultBlock = std::function<void(Object* result, Error* error)>;

    // The shared store (VXResourceController::sharedResourceController()).
    static VXResourceStore& shared();

    virtual String* meUserIdentifier() const = 0;
    virtual RefPtr<VXResource> cachedResource(std::string_view className, String* identifier) const = 0;
    template<typename T>
    RefPtr<T> cachedResource(String* identifier) const
    {
        return dynamicDowncast<T>(cachedResource(T::s_info.name, identifier));
    }

    virtual RefPtr<VXUser> userForIdentifier(String* identifier, bool forceRefresh, UserBlock block, Subscription* subscription = nullptr) = 0;
    virtual RefPtr<VXTrack> trackForIdentifier(String* identifier, bool forceRefresh, TrackBlock block, Subscription* subscription = nullptr) = 0;

    virtual RefPtr<VXUser> userWithUserDictionary(Dictionary*) = 0;
    virtual RefPtr<VXTrack> trackWithTrackDictionary(Dictionary*) = 0;
    virtual RefPtr<VXComment> commentWithCommentDictionary(Dictionary*) = 0;
    virtual void loadForCollectionController(VXRemoteCollectionController&) = 0;
    // The same load; `subscription` receives a token that drops it.
    virtual void loadForCollectionController(VXRemoteCollectionController&, Subscription* subscription) = 0;

    virtual int32_t meIsFollowingUserForIdentifier(String* identifier, FollowCheckBlock block, Subscription* subscription = nullptr) = 0;
    virtual int32_t meIsFollowedByUserForIdentifier(String* identifier, FollowCheckBlock block, Subscription* subscription = nullptr) = 0;
    virtual void startFollowingUserForIdentifier(String* identifier, ResultBlock block, Subscription* subscription = nullptr) = 0;
    virtual void stopFollowingByUserForIdentifier(String* identifier, ResultBlock block, Subscription* subscription = nullptr) = 0;

    virtual void registerTrackPlayedForIdentifier(String* trackIdentifier) = 0;
    virtual bool hasTrackBeenPlayedForTrackIdentifier(String* trackIdentifier) const = 0;

protected:
    VXResourceStore() = default;
    ~VXResourceStore() = default;
};

} // namespace velvox
