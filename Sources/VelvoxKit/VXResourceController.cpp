#include "VXResourceController.h"

#include "VXActivity.h"
#include "VXArchiveStore.h"
#include "VXFramework.h"
#include "VXSharingNote.h"

#include <Platform/Platform.h>

#include <algorithm>
#include <memory>

namespace velvox {

VX_DEFINE_CLASS(VXResourceController, ZUObject)

namespace {

// Keys looked up for every record, made once so that their hashes are kept.
const String& userKey()
{
    static const String& key = *String::create("user").leakRef();
    return key;
}

RefPtr<VXResourceController>& sharedStore()
{
    static RefPtr<VXResourceController>* store = new RefPtr<VXResourceController>;
    return *store;
}

} // namespace

VXResourceController& VXResourceController::sharedResourceController()
{
    auto& store = sharedStore();
    if (!store)
        store = create();
    return *store;
}

void VXResourceController::setSharedResourceController(RefPtr<VXResourceController> store)
{
    sharedStore() = std::move(store);
}

void VXResourceController::registerValueTransformers()
{
    VXRegisterValueTransformers();
}

VXResourceController::VXResourceController()
    : m_poller([this](String* identifier, std::shared_ptr<void> slot) {
        // The refresh's answer may be the last thing that keeps the store.
        Ref protectedThis { *this };
        if (!slot) {
            forceRefreshTrackWithIdentfier(identifier);
            return;
        }
        trackForIdentifier(identifier, true, [slot = std::move(slot)](VXTrack*, Error*) {});
    })
{
    m_identityMap.setOverBudgetHandler([this] { scheduleCollection(); });
}

VXResourceStore& VXResourceStore::shared()
{
    return VXResourceController::sharedResourceController();
}

void VXResourceController::setOptions(const Options& options)
{
    checkThread(__func__);
    m_options = options;
    m_identityMap.setArchivedObjectsPerClass(options.archivedObjectsPerClass);
    m_identityMap.setRecordsReceipts(!options.maximumAgeByClass.empty() || options.honoursCacheControl);
    m_poller.setLimits({ options.mergesTrackRefreshes, options.maximumTrackRefreshesInFlight });
    m_identityMap.setMemoryBudget(options.memoryBudget);
}

VXResourceController::~VXResourceController()
{
    m_terminationObserver.cancel();
    m_poller.stop();
}

Ref<VXResourceController> VXResourceController::create()
{
    return create(nullptr, Options {});
}

Ref<VXResourceController> VXResourceController::create(VXAPIController* apiController, const Options& options)
{
    auto store = adoptRef(*new VXResourceController);
    store->setOptions(options);
    registerValueTransformers();
    // The archive holds model objects; their classes must be known to read it.
    VXRegisterArchiveClasses();
    VXArchiveStore::read(VXArchiveStore::identityMapPath(), [&store](RefPtr<Object> root) { return store->m_identityMap.adoptArchivedRoot(root.get()); });
    if (store->m_identityMap.recordsReceipts())
        VXArchiveStore::read(VXArchiveStore::receiptsPath(), [&store](RefPtr<Object> root) { return store->m_identityMap.adoptReceipts(root.get()); });
    store->setApiController(apiController);
    store->startJournal();
    VXResourceController* self = store.ptr();
    store->m_terminationObserver = NotificationCenter::defaultCenter().addObserver(ApplicationWillTerminateNotification, nullptr,
        [self](Notification& notification) { self->applicationWillTerminate(&notification); });
    return store;
}

RefPtr<VXResourceController> VXResourceController::connect(std::string_view baseURL, std::string_view accessToken, std::string* problem)
{
    return connect(baseURL, accessToken, Options {}, problem);
}

RefPtr<VXResourceController> VXResourceController::connect(std::string_view baseURL, std::string_view accessToken, const Options& options, std::string* problem)
{
    auto api = VXVelvoxAPI::create(baseURL, accessToken, problem);
    if (!api)
        return nullptr;
    auto store = create(VXAPIController::create(api.get()).ptr(), options);
    setSharedResourceController(store.ptr());
    return store;
}

Ref<VXResourceController> VXResourceController::create(VXAPIController* apiController)
{
    return create(apiController, Options {});
}

void VXResourceController::setMeUserIdentifier(String* identifier)
{
    checkThread(__func__);
    if (identifier && m_meUserIdentifier && identifier->isEqual(m_meUserIdentifier.get()))
        return;
    Ref protectedThis { *this };
    willChangeValueForKey("meUserIdentifier");
    if (m_meUserIdentifier)
        serializePlayedTrackIdentifiersForMeUserIdentifer(m_meUserIdentifier.get());
    m_meUserIdentifier = identifier;
    m_playedTrackIdentifiers = deserializePlayedTrackIdentifiersForMeUserIdentifer(m_meUserIdentifier.get());
    m_lastRefreshTimestamps = deserializeLastPlayedTimestampsForMeUserIdentifer(m_meUserIdentifier.get());
    didChangeValueForKey("meUserIdentifier");
}

RefPtr<Object> VXResourceController::valueForKey(std::string_view key) const
{
    if (key == "meUserIdentifier")
        return m_meUserIdentifier;
    if (key == "apiController")
        return m_apiController;
    if (key == "resourceCache")
        return &m_identityMap.dictionary();
    if (key == "playedTrackIdentifiers")
        return m_playedTrackIdentifiers;
    if (key == "lastRefreshTimestamps")
        return m_lastRefreshTimestamps;
    return ZUObject::valueForKey(key);
}

// MARK: The identity map

RefPtr<VXResource> VXResourceController::cachedResource(std::string_view className, String* identifier) const
{
    checkThread(__func__);
    return m_identityMap.cachedResource(className, identifier);
}

RefPtr<VXResource> VXResourceController::cachedResource(std::string_view className, std::string_view identifier) const
{
    checkThread(__func__);
    return m_identityMap.cachedResource(className, identifier);
}

void VXResourceController::cacheResource(VXResource& resource)
{
    checkThread(__func__);
    m_identityMap.cacheResource(resource);
}

Ref<VXResource> VXResourceController::updateCacheForResource(const ClassInfo& info, Ref<VXResource> (*make)(Dictionary*), String* identifier, Dictionary* dictionary)
{
    checkThread(__func__);
    if (m_identityMap.recordsReceipts())
        m_identityMap.setAnswerMaximumAge(m_options.honoursCacheControl && m_apiController && m_apiController->api() ? m_apiController->api()->maximumAgeOfAnswerBeingDelivered() : -1);
    return m_identityMap.updateCacheForResource(info, make, identifier, dictionary);
}

void VXResourceController::clearResourceCache()
{
    checkThread(__func__);
    m_identityMap.clear();
}

RefPtr<VXUser> VXResourceController::userWithUserDictionary(Dictionary* dictionary)
{
    checkThread(__func__);
    if (!dictionary)
        return nullptr;
    return updateCacheForResource<VXUser>(nullptr, dictionary);
}

RefPtr<VXTrack> VXResourceController::trackWithTrackDictionary(Dictionary* dictionary)
{
    checkThread(__func__);
    if (!dictionary)
        return nullptr;
    auto track = updateCacheForResource<VXTrack>(nullptr, dictionary);
    // Still being processed (or in no known state): look again later.
    if (track->state() != VXTrackStateFailed && track->state() != VXTrackStateFinished)
        m_poller.schedule(track->resourceIdentifier(), std::max(2 * track->duration(), 2.0));
    userWithUserDictionary(dynamicDowncast<Dictionary>(dictionary->objectForKey(&userKey())));
    return track;
}

RefPtr<VXComment> VXResourceController::commentWithCommentDictionary(Dictionary* dictionary)
{
    checkThread(__func__);
    if (!dictionary)
        return nullptr;
    auto comment = updateCacheForResource<VXComment>(nullptr, dictionary);
    userWithUserDictionary(dynamicDowncast<Dictionary>(dictionary->objectForKey(&userKey())));
    return comment;
}

void VXResourceController::forceRefreshTrackWithIdentfier(String* identifier)
{
    checkThread(__func__);
    trackForIdentifier(identifier, true, nullptr);
}

// MARK: Single fetches

VXFetchPolicy VXResourceController::policyFor(bool forceRefresh, const ClassInfo& info) const
{
    if (forceRefresh)
        return VXFetchPolicy::CacheAndNetwork;
    auto found = m_options.fetchPolicyByClass.find(info.name);
    return found == m_options.fetchPolicyByClass.end() ? VXFetchPolicy::CacheFirst : found->second;
}

bool VXResourceController::isFresh(const VXResource& resource) const
{
    // The service's word for what it answered, else the class's maximum age.
    double maximumAge = m_options.honoursCacheControl ? m_identityMap.serviceMaximumAge(resource) : -1;
    if (maximumAge < 0) {
        auto byClass = m_options.maximumAgeByClass.find(resource.className());
        if (byClass == m_options.maximumAgeByClass.end())
            return true;
        maximumAge = byClass->second;
    }
    double received = m_identityMap.receivedAt(resource);
    double age = Date::now()->timeIntervalSince1970() - received;
    // A time from the future (a clock set back) is not trusted either.
    return received > 0 && age >= 0 && age < maximumAge;
}

RefPtr<VXResource> VXResourceController::fetch(VXResource* cached, VXFetchPolicy policy, const std::function<void(VXAPICallbackBlock)>& send,
    std::function<std::string()> what, std::function<RefPtr<VXResource>(Dictionary*)> convert, std::function<void(VXResource*, Error*)> block)
{
    if (policy == VXFetchPolicy::CacheOnly || (policy == VXFetchPolicy::CacheFirst && cached && isFresh(*cached)))
        return cached;
    if (m_apiController) {
        Ref protectedThis { *this };
        send([protectedThis, what = std::move(what), convert = std::move(convert), block = std::move(block)](VXAPIController*, Object* json, Error* error) {
            RefPtr<VXResource> resource;
            auto failure = protectedThis->readRecord(json, error, what, [&](Dictionary* record) { resource = convert(record); });
            block(resource.get(), failure.get());
        });
    }
    return policy == VXFetchPolicy::NetworkOnly ? nullptr : cached;
}

// MARK: Answers that do not fit

namespace {

// "VXTrack" → "track", for messages about records.
std::string recordName(std::string_view className)
{
    std::string name(className.starts_with("VX") ? className.substr(2) : className);
    if (!name.empty())
        name[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[0])));
    return name;
}

// A raise's reason may quote service data of any size: keep a bounded start, whole code points.
std::string boundedReason(const std::string& reason)
{
    constexpr size_t limit = 300;
    if (reason.size() <= limit)
        return reason;
    size_t end = limit;
    while (end && (static_cast<unsigned char>(reason[end]) & 0xC0) == 0x80)
        --end;
    return reason.substr(0, end) + "…";
}

} // namespace

RefPtr<Error> VXResourceController::readAnswer(const std::function<std::string()>& what, const std::function<void()>& convert) const
{
    if (m_options.unreadableAnswerPolicy == VXUnreadableAnswerPolicy::Raise) {
        convert();
        return nullptr;
    }
    ZUObject::clearUnreadableValue();
    try {
        convert();
        return nullptr;
    } catch (const Exception& exception) {
        auto& field = ZUObject::lastUnreadableValue();
        std::string text = "The service's answer (" + what() + ") could not be read";
        if (!field.key.empty())
            text += ": the " + recordName(field.className) + " record's \"" + field.key + "\" holds a value of the wrong type";
        text += " (" + exception.name() + ": " + boundedReason(exception.reason()) + ")";
        return Error::create(VXResourceErrorDomain, VXResourceErrorUnreadableAnswer, text);
    }
}

RefPtr<Error> VXResourceController::readRecord(Object* json, Error* error, const std::function<std::string()>& what,
    const std::function<void(Dictionary*)>& convert) const
{
    if (error)
        return error;
    auto* record = dynamicDowncast<Dictionary>(json);
    if (!record && m_options.unreadableAnswerPolicy == VXUnreadableAnswerPolicy::Report) {
        std::string kind = !json ? "not JSON, or empty" : is<Array>(json) ? "a list"
                                                                          : "a single value";
        return Error::create(VXResourceErrorDomain, VXResourceErrorNotARecord, "The service's answer (" + what() + ") is not a record: it is " + kind + ".");
    }
    return readAnswer(what, [&] { convert(record); });
}

std::function<std::string()> VXResourceController::answerAbout(std::string_view record, String* identifier)
{
    RefPtr<String> protectedIdentifier = identifier;
    return [record = std::string(record), protectedIdentifier] { return record + " " + (protectedIdentifier ? protectedIdentifier->str() : "(null)"); };
}

namespace {

// A store block of a model class as a block of resources.
template<typename T>
std::function<void(VXResource*, Error*)> resourceBlock(std::function<void(T*, Error*)> block)
{
    return [block = std::move(block)](VXResource* resource, Error* error) {
        if (block)
            block(downcast<T>(resource), error);
    };
}

} // namespace

RefPtr<VXUser> VXResourceController::userForIdentifier(String* identifier, bool forceRefresh, UserBlock block, Subscription* subscription)
{
    return userForIdentifier(identifier, policyFor(forceRefresh, VXUser::s_info), std::move(block), subscription);
}

RefPtr<VXTrack> VXResourceController::trackForIdentifier(String* identifier, bool forceRefresh, TrackBlock block, Subscription* subscription)
{
    return trackForIdentifier(identifier, policyFor(forceRefresh, VXTrack::s_info), std::move(block), subscription);
}

RefPtr<VXComment> VXResourceController::commentForIdentifier(String* identifier, bool forceRefresh, CommentBlock block, Subscription* subscription)
{
    return commentForIdentifier(identifier, policyFor(forceRefresh, VXComment::s_info), std::move(block), subscription);
}

RefPtr<VXUser> VXResourceController::userForIdentifier(String* identifier, VXFetchPolicy policy, UserBlock block, Subscription* subscription)
{
    checkThread(__func__);
    auto send = [&](VXAPICallbackBlock answer) { m_apiController->userRessouceWithIdentifer(identifier, std::move(answer), subscription); };
    auto convert = [this](Dictionary* json) -> RefPtr<VXResource> { return updateCacheForResource<VXUser>(nullptr, json); };
    return downcast<VXUser>(fetch(cachedResource<VXUser>(identifier).get(), policy, send, answerAbout("user", identifier), convert, resourceBlock(std::move(block))));
}

RefPtr<VXTrack> VXResourceController::trackForIdentifier(String* identifier, VXFetchPolicy policy, TrackBlock block, Subscription* subscription)
{
    checkThread(__func__);
    auto send = [&](VXAPICallbackBlock answer) { m_apiController->trackRessouceWithIdentifer(identifier, std::move(answer), subscription); };
    auto convert = [this](Dictionary* json) -> RefPtr<VXResource> { return trackWithTrackDictionary(json); };
    return downcast<VXTrack>(fetch(cachedResource<VXTrack>(identifier).get(), policy, send, answerAbout("track", identifier), convert, resourceBlock(std::move(block))));
}

RefPtr<VXComment> VXResourceController::commentForIdentifier(String* identifier, VXFetchPolicy policy, CommentBlock block, Subscription* subscription)
{
    checkThread(__func__);
    // Comments are fetched on the track path; the answer is stored as a comment.
    auto send = [&](VXAPICallbackBlock answer) { m_apiController->trackRessouceWithIdentifer(identifier, std::move(answer), subscription); };
    auto convert = [this](Dictionary* json) -> RefPtr<VXResource> { return updateCacheForResource<VXComment>(nullptr, json); };
    return downcast<VXComment>(fetch(cachedResource<VXComment>(identifier).get(), policy, send, answerAbout("comment", identifier), convert, resourceBlock(std::move(block))));
}

RefPtr<VXUser> VXResourceController::meUserForceRefresh(bool forceRefresh, UserBlock block, Subscription* subscription)
{
    checkThread(__func__);
    RefPtr<VXUser> cached;
    if (m_meUserIdentifier) {
        cached = cachedResource<VXUser>(m_meUserIdentifier.get());
        if (cached && !forceRefresh)
            return cached;
    }
    if (m_apiController) {
        Ref protectedThis { *this };
        m_apiController->meUserRessouce([protectedThis, block = std::move(block)](VXAPIController*, Object* json, Error* error) {
            RefPtr<VXUser> user;
            auto failure = protectedThis->readRecord(
                json, error, [] { return std::string("the signed-in user"); },
                [&](Dictionary* record) { user = protectedThis->updateCacheForResource<VXUser>(nullptr, record); });
            if (block)
                block(user.get(), failure.get());
            // A failed "/me" forgets the signed-in user.
            protectedThis->setMeUserIdentifier(user ? user->resourceIdentifier() : nullptr);
        },
            subscription);
    }
    return cached;
}

// MARK: Statistics

VXResourceController::Statistics VXResourceController::resourceCacheStatistics() const
{
    auto map = m_identityMap.statistics();
    return { std::move(map.classes), map.objectCount, map.estimatedBytes, m_poller.pendingCount(), m_identityMap.memoryBudget(), m_identityMap.letGoCount() };
}

// MARK: Memory budget

void VXResourceController::scheduleCollection()
{
    if (m_collectionScheduled)
        return;
    m_collectionScheduled = true;
    // The timer goes with the store (its Subscription), so it never outlives it.
    m_collectionSlice = RunLoop::current().performAfterDelay(0, [this] { collectSlice(); });
}

void VXResourceController::collectSlice()
{
    m_collectionSlice.release();
    m_collectionScheduled = false;
    // The memos hold the objects of recent pages; they are only a cache.
    m_pageMemos.clear();
    Ref protectedThis { *this };
    // NothingToLetGo waits for the next filing, which schedules again.
    if (m_identityMap.collect(std::chrono::steady_clock::now() + VXIdentityMap::sliceLength) == VXIdentityMap::Collection::Unfinished)
        scheduleCollection();
}

} // namespace velvox
