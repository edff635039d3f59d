#pragma once

// The host's entry point: one shared store that keeps one model object per
// class and identifier (the identity map), knows the signed-in user, fetches
// and refreshes users, tracks and comments, polls tracks that the service is
// still processing, answers follow questions, and remembers the identity
// map, the played tracks and the refresh dates of each account across runs.
//
// Everything runs on the run loop's thread: the store belongs to the thread
// that made it, and a call from another raises WrongThreadException naming
// the call. The store owns every object in its map for the life of the
// process; callers that keep one retain it.
//
// Every call that calls back later takes an optional Subscription*, which
// receives a token for the call: cancelled or destroyed, the call's blocks
// are never called and what they captured is released (see VXAPIController
// for requests that several callers share). A SubscriptionSet holds the
// tokens of everything a window started.
// Blocks may be empty everywhere; they are then not called.

#include "VXAPIController.h"
#include "VXChangeJournal.h"
#include "VXActivityCollectionController.h"
#include "VXComment.h"
#include "VXCommentCollectionController.h"
#include "VXIdentityMap.h"
#include "VXResourceStore.h"
#include "VXTrack.h"
#include "VXTrackCollectionController.h"
#include "VXTrackPoller.h"
#include "VXUser.h"
#include "VXUserCollectionController.h"

#include <Platform/Collections.h>
#include <Platform/NotificationCenter.h>
#include <Platform/Subscription.h>
#include <Platform/Values.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velvox {

// Errors of answers that do not fit the models, under VXUnreadableAnswerPolicy::Report.
inline constexpr std::string_view VXResourceErrorDomain = "VXResourceErrorDomain";
enum : int64_t {
    // A value of the wrong type for its field, an identifier that is not one,
    // a page that is not a list: the message names the record and the field.
    VXResourceErrorUnreadableAnswer = 1,
    // An answer that should be a record (a user, a track, a comment) is not one.
    VXResourceErrorNotARecord = 2,
};

// Under Options::offlineChanges: the change could not reach the service and
// waits in the journal (code 1), or the service refused a change that waited
// (code 2; the underlying error under UnderlyingErrorKey).
inline constexpr std::string_view VXQueuedChangeErrorDomain = "VXQueuedChangeErrorDomain";
enum : int64_t {
    VXQueuedChangeErrorQueued = 1,
    VXQueuedChangeErrorRefused = 2,
};

// How the store meets an answer that does not fit the models. Raise (the
// default): the models' assertions raise out of the answer's delivery, as
// their interfaces say, and a collection's load has ended with an error first.
// Report: no raise leaves the store; the fetch, check or load ends with an
// error in VXResourceErrorDomain handed to the caller's block (a collection
// keeps the items it had), and an answer that is not a record where one is
// due is such an error too, not an empty object. Hosts that must outlive any
// service choose Report.
enum class VXUnreadableAnswerPolicy { Raise,
    Report };

// Where a single fetch takes its answer from.
enum class VXFetchPolicy {
    // The cached object when it is fresh (see Options::maximumAgeByClass),
    // and no request; else the request, as CacheAndNetwork. What a fetch
    // without forceRefresh does.
    CacheFirst,
    // The cached object (or null) at once, and the request; the block gets
    // the fresh object, and the object's observers hear what changed. What a
    // fetch with forceRefresh does.
    CacheAndNetwork,
    // Null at once, and the request; the block gets the fresh object.
    NetworkOnly,
    // The cached object or null, and never a request; the block is not called.
    CacheOnly,
};

// A ZUObject for its key-value observing: "meUserIdentifier" is announced.
class VXResourceController final : public ZUObject, public VXResourceStore {
    VX_OBJECT(VXResourceController)
public:
    using VXResourceStore::FollowCheckBlock;
    using VXResourceStore::ResultBlock;
    using VXResourceStore::TrackBlock;
    using VXResourceStore::UserBlock;
    using CommentBlock = std::function<void(VXComment* comment, Error* error)>;

    // The shared store, made on first use with plain create() (which loads
    // the identity map) and kept for the life of the process.
    static VXResourceController& sharedResourceController();
    // Replaces the shared store (tests start each case with a fresh one);
    // null makes the next sharedResourceController() create a new one.
    static void setSharedResourceController(RefPtr<VXResourceController>);
    // Registers the eight value transformers, in the order the models need them.
    static void registerValueTransformers();

    // What the store does beyond its interface's letter, for hosts that meet
    // any service and run long. The defaults are the interface's behaviour.
    struct Options {
        // At most this many objects of each class are archived, and loaded
        // from an archive that holds more: the most recently cached or
        // updated ones, this run's before those loaded. 0: no bound. Objects
        // left out stay in the map for the rest of the run. The default keeps
        // the whole identity map, which then grows with every object a run meets.
        size_t archivedObjectsPerClass { 0 };
        // What an answer that does not fit the models does: raise (the
        // interface's behaviour) or end its fetch or load with an error.
        VXUnreadableAnswerPolicy unreadableAnswerPolicy { VXUnreadableAnswerPolicy::Raise };
        // Whether a track has at most one refresh pending: seen again before
        // it is due, it keeps the sooner of the two. Off: every sighting of an
        // unfinished track schedules a refresh of its own.
        bool mergesTrackRefreshes { false };
        // How many refreshes of unfinished tracks may wait for their answers
        // at once; one that comes due beyond that waits, in order, for one of
        // them to end, so that polling never crowds out what the host asks
        // for. 0: no limit, every refresh goes out when it is due.
        size_t maximumTrackRefreshesInFlight { 0 };
        // How old an object of a class may grow (seconds since its record
        // last came in) before a cache-first fetch asks the service again:
        // {"VXTrack", 300}. A class without an entry never grows old, as the
        // interface has it. With any entry, the store records when each
        // record comes in and keeps it beside the identity map
        // ("receipts.archive"), so that freshness outlives a restart; an
        // object whose time is unknown counts as old.
        std::map<std::string, double, std::less<>> maximumAgeByClass;
        // The policy of fetches made without forceRefresh, by class
        // ("VXTrack"); CacheFirst for a class without an entry.
        std::map<std::string, VXFetchPolicy, std::less<>> fetchPolicyByClass;
        // Whether "Cache-Control: max-age" of an answer sets how long what it
        // brought stays fresh, over the class's maximum age ("no-cache" and
        // "no-store": not at all). Records receipts as a maximum age does.
        bool honoursCacheControl { false };
        // Follow, unfollow, favorite and unfavorite show at once: the user's
        // "followedByMe" or the track's "userFavorite" changes (one
        // announcement), the request goes out, and a failure rolls the value
        // back (one more) and hands the caller the error. Changes to one user
        // or track are sent one at a time, so that quick opposite changes end
        // in the last one's state on the service and in the model; follow
        // checks answer the value under way. Off: the interface's behaviour.
        bool optimisticChanges { false };
        // Follow, unfollow, favorite, unfavorite and comments are written to
        // a journal ("changes.archive", saved at once, private) before they
        // are sent, shown as made (the model's value changes; follow checks
        // answer it), and sent from it one at a time, in order. One the
        // service cannot take now (no connection, a time-out, 429, 5xx)
        // stays and is sent when the service answers again, at the next
        // start, or after a growing pause; its caller hears an error in
        // VXQueuedChangeErrorDomain saying so. Each reaches the service once:
        // a comment that may have reached it is looked for among the track's
        // comments before it is sent again. A change the service refuses (a
        // 4xx) is dropped and undone in the model; its caller hears the
        // refusal, or, when it was told the change waits, the error is kept
        // in lastQueuedChangeError(). Off: the interface's behaviour.
        bool offlineChanges { false };
        // Bytes the identity map may take, on the estimate of
        // resourceCacheStatistics(). Over it, the store lets go, a slice of
        // at most a millisecond per turn of the run loop, of the least
        // recently used objects that nobody else holds (no reference outside
        // the store, no observer, in no live collection); an object let go is
        // fetched again when asked for, and the archive holds what the map
        // still holds. Unset: no budget, the map keeps every object for the run.
        std::optional<size_t> memoryBudget;
    };

    // The one call a host needs: a client (VXVelvoxAPI) for the service's
    // base URL and access token, an API controller on it, and a store on that
    // controller, made the shared store (the one the models and the lists
    // use) and answered. Null, with the reason in `problem`, when the client
    // cannot be made (VXVelvoxAPI::configurationProblem). Against the sandbox:
    // connect(service.baseURL(), service.token()). The steps it takes stay
    // available one by one.
    static RefPtr<VXResourceController> connect(std::string_view baseURL, std::string_view accessToken, std::string* problem = nullptr);

    // The journal of Options::offlineChanges, for the account the store's
    // client signs in with. Key-value observable: "queuedChangeCount" and
    // "lastQueuedChangeError".
    size_t queuedChangeCount() const;
    Error* lastQueuedChangeError() const { return m_lastQueuedChangeError.get(); }
    std::vector<VXChangeJournal::Entry> queuedChanges() const;
    // Tries to send what waits now (it is tried by itself too).
    void sendQueuedChanges();
    // Whether a change of the journal is under way (sent, or the next about to be).
    bool isSendingQueuedChanges() const { return m_sendingQueued; }
    // Forgets what waits (the model keeps what it shows until refreshed).
    void discardQueuedChanges();
    static RefPtr<VXResourceController> connect(std::string_view baseURL, std::string_view accessToken, const Options&, std::string* problem = nullptr);

    // init: registers the transformers, loads the identity map, and observes
    // the application's termination to save.
    static Ref<VXResourceController> create();
    // initWithApiController:
    static Ref<VXResourceController> create(VXAPIController* apiController);
    static Ref<VXResourceController> create(VXAPIController* apiController, const Options&);
    const Options& options() const { return m_options; }
    // Applies from the next answer, refresh or save on (the archive bound
    // chose what loaded already).
    void setOptions(const Options&);

    String* meUserIdentifier() const override { return m_meUserIdentifier.get(); }
    // Saves the old account's played tracks, then loads the new account's
    // played tracks and refresh dates; announced to observers of
    // "meUserIdentifier". The current identifier again changes nothing.
    void setMeUserIdentifier(String*);
    VXAPIController* apiController() const { return m_apiController.get(); }
    void setApiController(VXAPIController* controller) { m_apiController = controller; }
    MutableDictionary& resourceCache() const { return m_identityMap.dictionary(); }
    void setResourceCache(MutableDictionary& cache) { m_identityMap.setDictionary(cache); }
    MutableSet* playedTrackIdentifiers() const { return m_playedTrackIdentifiers.get(); }
    MutableDictionary* lastRefreshTimestamps() const { return m_lastRefreshTimestamps.get(); }

    // Single fetches. A cached object is answered at once; without forceRefresh
    // the block is then not called. Otherwise the request goes out, the cached
    // object (or null) is answered, and the block gets the fresh object.
    RefPtr<VXUser> meUserForceRefresh(bool forceRefresh, UserBlock block, Subscription* subscription = nullptr);
    RefPtr<VXUser> userForIdentifier(String* identifier, bool forceRefresh, UserBlock block, Subscription* subscription = nullptr) override;
    RefPtr<VXTrack> trackForIdentifier(String* identifier, bool forceRefresh, TrackBlock block, Subscription* subscription = nullptr) override;
    RefPtr<VXComment> commentForIdentifier(String* identifier, bool forceRefresh, CommentBlock block, Subscription* subscription = nullptr);
    // The same fetches with a policy of their own (forceRefresh true is
    // CacheAndNetwork, false the class's policy).
    RefPtr<VXUser> userForIdentifier(String* identifier, VXFetchPolicy, UserBlock block, Subscription* subscription = nullptr);
    RefPtr<VXTrack> trackForIdentifier(String* identifier, VXFetchPolicy, TrackBlock block, Subscription* subscription = nullptr);
    RefPtr<VXComment> commentForIdentifier(String* identifier, VXFetchPolicy, CommentBlock block, Subscription* subscription = nullptr);
    // Whether a cached object is fresh for a cache-first fetch, and when its
    // record last came in (0: unknown or not recorded).
    bool isFresh(const VXResource&) const;
    double receivedAt(const VXResource& resource) const { return m_identityMap.receivedAt(resource); }

    // JSON into the identity map.
    RefPtr<VXUser> userWithUserDictionary(Dictionary*) override;
    // Also caches the embedded "user", and schedules a refresh of a track the
    // service has not finished (or failed) after max(2 × duration, 2) seconds
    // (each time it is seen, unless mergesTrackRefreshes()).
    RefPtr<VXTrack> trackWithTrackDictionary(Dictionary*) override;
    RefPtr<VXComment> commentWithCommentDictionary(Dictionary*) override;
    void forceRefreshTrackWithIdentfier(String* identifier);

    // The identity map: class name, then identifier.
    RefPtr<VXResource> cachedResource(std::string_view className, String* identifier) const override;
    RefPtr<VXResource> cachedResource(std::string_view className, std::string_view identifier) const;
    template<typename T>
    RefPtr<T> cachedResource(String* identifier) const
    {
        return dynamicDowncast<T>(cachedResource(T::s_info.name, identifier));
    }
    // Stores the resource under its class and identifier and posts
    // VXResourceAttributesDidChangeNotification.
    void cacheResource(VXResource&);
    // The one road by which JSON enters the map: the cached object refreshed
    // in place (announced only when something changed), or a new one cached.
    // A null identifier is taken from the dictionary; a dictionary without one
    // gives an object that is not cached.
    template<typename T>
    Ref<T> updateCacheForResource(String* identifier, Dictionary* dictionary)
    {
        auto make = [](Dictionary* d) -> Ref<VXResource> { return T::create(d); };
        return downcast<T>(updateCacheForResource(T::s_info, make, identifier, dictionary));
    }
    void clearResourceCache();

    // Collections: each call makes a new collection on its resource path
    // (with or without a leading "/", exactly as the service's paths are).
    Ref<VXActivityCollectionController> incomingActivities();
    Ref<VXActivityCollectionController> exclusiveActivities();
    Ref<VXTrackCollectionController> favoriteTracks();
    Ref<VXUserCollectionController> usersFollowingMe();
    Ref<VXUserCollectionController> usersFollowedByMe();
    Ref<VXTrackCollectionController> meUserTracks();
    Ref<VXUserCollectionController> usersFollowingUserForIdentifier(String* userIdentifier);
    Ref<VXUserCollectionController> usersFollowedByUserForIdentifier(String* userIdentifier);
    Ref<VXTrackCollectionController> tracksForUserIdentifier(String* userIdentifier);
    Ref<VXTrackCollectionController> favoritesForUserIdentifier(String* userIdentifier);
    // "q" is the query; the options' entries follow and win (an option "q" replaces the query).
    Ref<VXTrackCollectionController> tracksForUserIdentifier(String* userIdentifier, String* searchQuery, Dictionary* searchOptions);
    Ref<VXTrackCollectionController> tracksForSearchQuery(String* query, Dictionary* searchOptions);
    Ref<VXUserCollectionController> usersForSearchQuery(String* query);
    Ref<VXUserCollectionController> favoritersForTrackIdentifier(String* trackIdentifier);
    Ref<VXCommentCollectionController> commentsForTrackIdentifier(String* trackIdentifier);
    // The loader of every collection: one GET of its resource and request
    // parameters; the page reaches the collection, or the error does.
    void loadForCollectionController(VXRemoteCollectionController&) override;
    void loadForCollectionController(VXRemoteCollectionController&, Subscription* subscription) override;

    // Uploads: the progress block gets the track made from the upload's own
    // fields and the progress; the completion block gets the decoded answer
    // as it came (the created track is in the identity map by then).
    using UploadProgressBlock = std::function<void(VXTrack* track, float progress)>;
    void postTrackWithTrackDictionary(Dictionary* track, UploadProgressBlock progressBlock, ResultBlock completionBlock, Subscription* subscription = nullptr);
    // Comments: the block gets the created comment, from the identity map.
    void postCommentWithTrackIdentifier(String* trackIdentifier, String* body, CommentBlock block, Subscription* subscription = nullptr);
    // At a position in the track, in seconds (sent in milliseconds).
    void postCommentWithTrackIdentifier(String* trackIdentifier, String* body, double timestamp, CommentBlock block, Subscription* subscription = nullptr);
    void postCommentWithTrackIdentifier(String* trackIdentifier, Dictionary* parameters, CommentBlock block, Subscription* subscription = nullptr);

    // Follow checks answer -2 (pending) at once; the block gets 1, 0 or -1.
    int32_t meIsFollowingUserForIdentifier(String* identifier, FollowCheckBlock block, Subscription* subscription = nullptr) override;
    int32_t meIsFollowedByUserForIdentifier(String* identifier, FollowCheckBlock block, Subscription* subscription = nullptr) override;
    void startFollowingUserForIdentifier(String* identifier, ResultBlock block, Subscription* subscription = nullptr) override;
    void stopFollowingByUserForIdentifier(String* identifier, ResultBlock block, Subscription* subscription = nullptr) override;
    // The signed-in user's favorites: PUT or DELETE "me/favorites/<id>"; the
    // cached track's "userFavorite" takes the new value when the service
    // agrees (at once under optimistic changes). The block gets the answer.
    void favoriteTrackForIdentifier(String* identifier, ResultBlock block, Subscription* subscription = nullptr);
    void unfavoriteTrackForIdentifier(String* identifier, ResultBlock block, Subscription* subscription = nullptr);
    // Changes not yet settled with the service: optimistic ones under way,
    // and those of the journal (queuedChangeCount()).
    size_t pendingChangeCount() const { return m_changes.size() + queuedChangeCount(); }

    // Play history and refresh dates of the signed-in account.
    void registerTrackPlayedForIdentifier(String* trackIdentifier) override;
    bool hasTrackBeenPlayedForTrackIdentifier(String* trackIdentifier) const override;
    // The distant past for an identifier never registered.
    Ref<Date> lastRefreshTimeStampForIdentifier(String* identifier) const;
    // A null date means now.
    void registerLastRefreshDate(Date*, String* identifier);

    // Saving: the identity map, then the signed-in account's refresh dates and
    // played tracks. The termination save is silent about failures.
    void applicationWillTerminate(Notification*);
    // The same save, now, making the folder first when it is missing. Every
    // file is attempted; the first failure is answered (null: all written).
    // A file that cannot be written keeps its earlier contents.
    RefPtr<Error> save();
    void applicationDidEnterBackground(Notification*);
    void serializePlayedTrackIdentifiersForMeUserIdentifer(String* meUserIdentifier);
    Ref<MutableSet> deserializePlayedTrackIdentifiersForMeUserIdentifer(String* meUserIdentifier);
    void serializeLastPlayedTimestampsForMeUserIdentifer(String* meUserIdentifier);
    Ref<MutableDictionary> deserializeLastPlayedTimestampsForMeUserIdentifer(String* meUserIdentifier);

    // Files: the folder "Velvox" of the per-user data folder ($XDG_DATA_HOME,
    // else ~/.local/share), "ressources.archive" in it, and the per-account
    // "<id>-playedTracks.archive" and "<id>-lastPlayedTimestamps.archive".
    std::string applicationSupportDirectory() const;
    std::string cacheDirectoryPath() const { return applicationSupportDirectory(); }
    std::string resourceCacheFilePath() const;
    std::string playedTrackIdentifiersStoragePathForMeUserIdentifer(String* meUserIdentifier) const;
    std::string lastPlayedTimestampsStoragePathForMeUserIdentifer(String* meUserIdentifier) const;

    // The calls above with identifiers and texts as std::string_view, for
    // hosts that hold them as text: store.trackForIdentifier("20005", ...).
    RefPtr<VXUser> userForIdentifier(std::string_view identifier, bool forceRefresh, UserBlock block, Subscription* subscription = nullptr)
    {
        return userForIdentifier(String::create(identifier).ptr(), forceRefresh, std::move(block), subscription);
    }
    RefPtr<VXTrack> trackForIdentifier(std::string_view identifier, bool forceRefresh, TrackBlock block, Subscription* subscription = nullptr)
    {
        return trackForIdentifier(String::create(identifier).ptr(), forceRefresh, std::move(block), subscription);
    }
    RefPtr<VXComment> commentForIdentifier(std::string_view identifier, bool forceRefresh, CommentBlock block, Subscription* subscription = nullptr)
    {
        return commentForIdentifier(String::create(identifier).ptr(), forceRefresh, std::move(block), subscription);
    }
    template<typename T>
    RefPtr<T> cachedResource(std::string_view identifier) const
    {
        return dynamicDowncast<T>(cachedResource(T::s_info.name, identifier));
    }
    int32_t meIsFollowingUserForIdentifier(std::string_view identifier, FollowCheckBlock block, Subscription* subscription = nullptr)
    {
        return meIsFollowingUserForIdentifier(String::create(identifier).ptr(), std::move(block), subscription);
    }
    int32_t meIsFollowedByUserForIdentifier(std::string_view identifier, FollowCheckBlock block, Subscription* subscription = nullptr)
    {
        return meIsFollowedByUserForIdentifier(String::create(identifier).ptr(), std::move(block), subscription);
    }
    void startFollowingUserForIdentifier(std::string_view identifier, ResultBlock block, Subscription* subscription = nullptr)
    {
        startFollowingUserForIdentifier(String::create(identifier).ptr(), std::move(block), subscription);
    }
    void stopFollowingByUserForIdentifier(std::string_view identifier, ResultBlock block, Subscription* subscription = nullptr)
    {
        stopFollowingByUserForIdentifier(String::create(identifier).ptr(), std::move(block), subscription);
    }
    void postCommentWithTrackIdentifier(std::string_view trackIdentifier, std::string_view body, CommentBlock block, Subscription* subscription = nullptr)
    {
        postCommentWithTrackIdentifier(String::create(trackIdentifier).ptr(), String::create(body).ptr(), std::move(block), subscription);
    }
    void postCommentWithTrackIdentifier(std::string_view trackIdentifier, std::string_view body, double timestamp, CommentBlock block, Subscription* subscription = nullptr)
    {
        postCommentWithTrackIdentifier(String::create(trackIdentifier).ptr(), String::create(body).ptr(), timestamp, std::move(block), subscription);
    }
    void favoriteTrackForIdentifier(std::string_view identifier, ResultBlock block, Subscription* subscription = nullptr)
    {
        favoriteTrackForIdentifier(String::create(identifier).ptr(), std::move(block), subscription);
    }
    void unfavoriteTrackForIdentifier(std::string_view identifier, ResultBlock block, Subscription* subscription = nullptr)
    {
        unfavoriteTrackForIdentifier(String::create(identifier).ptr(), std::move(block), subscription);
    }
    void registerTrackPlayedForIdentifier(std::string_view trackIdentifier) { registerTrackPlayedForIdentifier(String::create(trackIdentifier).ptr()); }
    bool hasTrackBeenPlayedForTrackIdentifier(std::string_view trackIdentifier) const { return hasTrackBeenPlayedForTrackIdentifier(String::create(trackIdentifier).ptr()); }
    Ref<VXUserCollectionController> usersFollowingUserForIdentifier(std::string_view userIdentifier) { return usersFollowingUserForIdentifier(String::create(userIdentifier).ptr()); }
    Ref<VXUserCollectionController> usersFollowedByUserForIdentifier(std::string_view userIdentifier) { return usersFollowedByUserForIdentifier(String::create(userIdentifier).ptr()); }
    Ref<VXTrackCollectionController> tracksForUserIdentifier(std::string_view userIdentifier) { return tracksForUserIdentifier(String::create(userIdentifier).ptr()); }
    Ref<VXTrackCollectionController> favoritesForUserIdentifier(std::string_view userIdentifier) { return favoritesForUserIdentifier(String::create(userIdentifier).ptr()); }
    Ref<VXTrackCollectionController> tracksForSearchQuery(std::string_view query, Dictionary* searchOptions = nullptr) { return tracksForSearchQuery(String::create(query).ptr(), searchOptions); }
    Ref<VXUserCollectionController> usersForSearchQuery(std::string_view query) { return usersForSearchQuery(String::create(query).ptr()); }
    Ref<VXUserCollectionController> favoritersForTrackIdentifier(std::string_view trackIdentifier) { return favoritersForTrackIdentifier(String::create(trackIdentifier).ptr()); }
    Ref<VXCommentCollectionController> commentsForTrackIdentifier(std::string_view trackIdentifier) { return commentsForTrackIdentifier(String::create(trackIdentifier).ptr()); }

    // How large the identity map has grown, for a host to watch.
    using ClassStatistics = VXIdentityMap::ClassStatistics;
    struct Statistics {
        std::vector<ClassStatistics> classes; // by class name
        size_t objectCount { 0 };
        size_t estimatedBytes { 0 };
        size_t pendingTrackRefreshes { 0 };
        // Options::memoryBudget, and how many objects it has let go so far.
        std::optional<size_t> memoryBudget;
        uint64_t objectsLetGo { 0 };
    };
    Statistics resourceCacheStatistics() const;
    // The memory budget's figures without walking the map: the budget, the
    // estimate it acts on (the statistics' estimate; 0 without a budget) and
    // how many objects it has let go.
    struct MemoryBudgetUsage {
        std::optional<size_t> budget;
        size_t estimatedBytes { 0 };
        uint64_t objectsLetGo { 0 };
    };
    MemoryBudgetUsage memoryBudgetUsage() const { return { m_identityMap.memoryBudget(), m_identityMap.trackedBytes(), m_identityMap.letGoCount() }; }

    RefPtr<Object> valueForKey(std::string_view key) const override;

private:
    VXResourceController();
    ~VXResourceController() override;
    void checkThread(const char* function) const { m_affinity.check("VXResourceController", function); }

    Ref<VXResource> updateCacheForResource(const ClassInfo&, Ref<VXResource> (*create)(Dictionary*), String* identifier, Dictionary*);
    // Pages of collections by the body they came in (the latest few): the
    // objects made from them, each with its change count then. A 304 that
    // hands the same body back while those objects are still the map's (its
    // generation unchanged) and unchanged gives the page again without
    // decoding or mapping it.
    struct PageMemo {
        Ref<Data> body;
        uint64_t generation;
        std::vector<Ref<Object>> items;
        std::vector<uint32_t> changeCounts;
    };
    std::vector<PageMemo> m_pageMemos; // most recent last
    void rememberPage(Data* body, const Array& items);
    RefPtr<Array> itemsOfUnchangedPage(const Data& body);
    int32_t checkFollow(bool following, String* identifier, FollowCheckBlock block, Subscription*);
    // Sends a change's value (1 on, 0 off) to the service.
    using ChangeSender = std::function<void(int32_t value, VXAPICallbackBlock, Subscription*)>;
    void changeFollow(bool follow, String* identifier, ResultBlock block, Subscription*);
    void changeFavorite(bool favorite, String* identifier, ResultBlock block, Subscription*);

    // An optimistic change of one value (a follow, a favorite) until it is
    // settled with the service: what the caller wants now, what the service
    // last agreed to, and the callers told when it settles.
    struct Change {
        int32_t desired { 0 };
        int32_t confirmed { unknownToTheService };
        int32_t rollback { -1 };
        bool inFlight { false };
        std::vector<std::shared_ptr<ResultBlock>> callers;
        std::function<void(int32_t)> apply;
        ChangeSender send;
        static constexpr int32_t unknownToTheService = -3;
    };
    void requestChange(const std::string& target, int32_t desired, int32_t current, std::function<void(int32_t)> apply,
        ChangeSender send, ResultBlock block, Subscription*);
    void sendChange(const std::string& target);
    void settleChange(const std::string& target, Object* answer, Error*);
    // The single-fetch pattern: the cached object at once unless forced, else
    // the request, whose answer is converted and handed to the block.
    VXFetchPolicy policyFor(bool forceRefresh, const ClassInfo&) const;
    RefPtr<VXResource> fetch(VXResource* cached, VXFetchPolicy, const std::function<void(VXAPICallbackBlock)>& send,
        std::function<std::string()> what, std::function<RefPtr<VXResource>(Dictionary*)> convert, std::function<void(VXResource*, Error*)> block);
    // Runs the conversion of an answer about `what`. Under Report a raise in
    // it becomes the error answered; under Raise it goes on.
    RefPtr<Error> readAnswer(const std::function<std::string()>& what, const std::function<void()>& convert) const;
    // What an answer was about, for messages: "track 20005".
    static std::function<std::string()> answerAbout(std::string_view record, String* identifier);
    // An answer that should be a record, handed to `convert` (as null when it
    // is not a record, under Raise): the request's error, the error of an
    // answer that is not a record (under Report), readAnswer's, or null.
    RefPtr<Error> readRecord(Object* json, Error* error, const std::function<std::string()>& what,
        const std::function<void(Dictionary*)>& convert) const;
    // The identity map, then the signed-in account's refresh dates and played
    // tracks; the first failure.
    RefPtr<Error> writeArchives();

    ThreadAffinity m_affinity;
    RefPtr<String> m_meUserIdentifier;
    RefPtr<VXAPIController> m_apiController;
    VXIdentityMap m_identityMap;
    RefPtr<MutableSet> m_playedTrackIdentifiers;
    RefPtr<MutableDictionary> m_lastRefreshTimestamps;
    Subscription m_terminationObserver;
    // The refreshes of unfinished tracks, stopped with the store.
    VXTrackPoller m_poller;
    Options m_options;
    std::map<std::string, std::shared_ptr<Change>> m_changes;

    // Options::offlineChanges.
    VXChangeJournal m_journal;
    RefPtr<Error> m_lastQueuedChangeError;
    bool m_sendingQueued { false };
    unsigned m_queuedPauses { 0 };
    unsigned m_queuedRefusals { 0 };
    Subscription m_queuedRetry;
    // What the journal's timers and the controller's observer reach the store
    // through, without keeping it.
    std::shared_ptr<VXResourceController*> m_self { std::make_shared<VXResourceController*>(this) };
    void startJournal();
    const std::string& journalAccount() const;
    bool hasQueuedChanges() const;
    // Writes a change to the journal (saved at once); the model shows it.
    void queueChange(VXChangeJournal::Entry, bool announce = true);
    // Under Options::offlineChanges every change is written to the journal
    // before it is sent, and sent from it in order: true, and the block hears
    // the first answer (VXQueuedChangeErrorQueued when the service could not
    // be reached or asked to wait). Off: false.
    bool journalChange(VXChangeJournal::Entry, ResultBlock block, Subscription*);
    void tellJournalCaller(uint64_t sequence, Object* json, Error* error);
    void tellWaitingCallers();
    std::map<uint64_t, std::shared_ptr<ResultBlock>> m_journalCallers;
    void journalChanged(size_t countBefore);
    void applyQueuedValue(const VXChangeJournal::Entry&, int32_t value);
    void sendNextQueuedChange();
    void lookForQueuedComment(uint64_t sequence, size_t offset);
    void sendQueuedComment(uint64_t sequence);
    void queuedChangeAnswered(uint64_t sequence, Object* json, Error* error);
    void retryQueuedChangesLater();
    // sendNextQueuedChange for a later turn or a timer, ending the journal's
    // sending state first when asked.
    std::function<void()> sendingNextQueuedChange(bool endsSending = false);
    // Under a memory budget: one slice of letting go per turn of the run
    // loop while over it, posted by a filing that finds the map over it.
    void scheduleCollection();
    void collectSlice();
    Subscription m_collectionSlice;
    bool m_collectionScheduled { false };
};

} // namespace velvox
