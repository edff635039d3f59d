#include "VXAPIController.h"

#include "VXKit.h"

#include <Platform/Exception.h>
#include <Platform/Format.h>

#include <algorithm>

namespace velvox {

VX_DEFINE_CLASS(VXAPIController, Object)

VXAPIController::VXAPIController()
    : m_runningConnections(MutableDictionary::create())
{
}

VXAPIController::~VXAPIController()
{
    // The client first: its requests end silently with it.
    m_api = nullptr;
}

Ref<VXAPIController> VXAPIController::create(VXVelvoxAPI* api)
{
    auto controller = adoptRef(*new VXAPIController);
    if (api)
        controller->m_api = api->copyWithAPIDelegate(controller.ptr());
    return controller;
}

RefPtr<String> VXAPIController::executingCallbacksRequestIdentifier() const
{
    std::lock_guard lock(m_executingMutex);
    return m_executingCallbacksRequestIdentifier;
}

void VXAPIController::setExecutingCallbacksRequestIdentifier(String* identifier)
{
    RefPtr<String> old;
    std::lock_guard lock(m_executingMutex);
    old = std::exchange(m_executingCallbacksRequestIdentifier, identifier);
}

Ref<String> VXAPIController::uniqIdentifierForPerformingMethod(const String& method, const String& resource, Dictionary* parameters) const
{
    std::string identifier(method.view());
    identifier += '-';
    identifier += resource.view();
    identifier += '-';
    if (parameters && parameters->count()) {
        // Each key's text made once, not at every comparison of the sort.
        std::vector<std::pair<Ref<String>, Object*>> sorted;
        sorted.reserve(parameters->count());
        for (auto& entry : *parameters)
            sorted.emplace_back(entry.key->description(), entry.key);
        std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first->compare(*b.first) < 0; });
        Object* lastKey = sorted.back().second;
        for (auto& [text, key] : sorted) {
            identifier += text->view();
            identifier += '=';
            auto* value = parameters->objectForKey(key);
            if (auto* text = dynamicDowncast<String>(value))
                identifier += text->view();
            else
                identifier += format("%@", value);
            if (!key->isEqual(lastKey))
                identifier += "-";
        }
    }
    return String::create(identifier);
}

void VXAPIController::performMethod(const String& method, const String& resource, Dictionary* parameters, Object* context, Dictionary* userInfo)
{
    checkThread(__func__);
    enqueue(method, resource, parameters, context, userInfo);
}

RefPtr<String> VXAPIController::enqueue(const String& method, const String& resource, Dictionary* parameters, Object* context, Dictionary* userInfo)
{
    if (!m_api)
        return nullptr;
    auto identifier = uniqIdentifierForPerformingMethod(method, resource, parameters);
    if (method.isEqualToString("GET")) {
        if (auto* running = dynamicDowncast<MutableArray>(m_runningConnections->objectForKey(identifier.ptr()))) {
            auto executing = executingCallbacksRequestIdentifier();
            if (executing && executing->isEqual(identifier.ptr())) {
                auto info = Dictionary::create({ { VXAPIRequestIdentifierKey, identifier.ptr() } });
                throw Exception(VXRecursiveRequestCallbackException,
                    format("A callback for requestId %@ tried to start a request with the same id. Ignoring the request, but you should fix this.", identifier),
                    info.ptr());
            }
            if (userInfo)
                running->addObject(userInfo);
            return identifier;
        }
    }
    auto callers = MutableArray::create();
    if (userInfo)
        callers->addObject(userInfo);
    // An identical PUT, POST or DELETE replaces the running one's callers,
    // whose calls so end.
    if (auto* replaced = dynamicDowncast<Array>(m_runningConnections->objectForKey(identifier.ptr()))) {
        for (auto* caller : *replaced)
            m_cancellableCallers.erase(static_cast<const Dictionary*>(dynamicDowncast<Dictionary>(caller)));
    }
    m_runningConnections->setObject(callers, identifier.ptr());
    auto clientInfo = Dictionary::create({ { VXAPIRequestIdentifierKey, identifier.ptr() } });
    if (auto found = m_clientInfos.find(identifier->view()); found != m_clientInfos.end())
        found->second.push_back(clientInfo);
    else
        m_clientInfos.emplace(identifier->str(), std::vector<Ref<Dictionary>> { clientInfo });
    Ref protectedThis { *this };
    m_api->performMethod(method, resource, parameters, context, clientInfo.ptr());
    return identifier;
}

void VXAPIController::perform(std::string_view method, std::string_view resource, Dictionary* parameters, Dictionary& userInfo, Subscription* subscription)
{
    auto identifier = enqueue(*String::create(method), *String::create(resource), parameters, nullptr, &userInfo);
    if (!subscription || !identifier)
        return;
    auto caller = std::make_shared<CancellableCaller>(CancellableCaller { this, &userInfo, Ref<String>(*identifier) });
    m_cancellableCallers.insert_or_assign(&userInfo, caller);
    std::weak_ptr<CancellableCaller> weakCaller = caller;
    *subscription = m_affinity.token([weakCaller] {
        if (auto caller = weakCaller.lock())
            caller->controller->cancelCaller(*caller);
    },
        weakCaller);
}

void VXAPIController::cancelCaller(const CancellableCaller& caller)
{
    Ref protectedThis { *this };
    // Kept until the end: `caller` lives in it.
    auto record = m_cancellableCallers.extract(caller.userInfo);
    auto* identifier = caller.requestIdentifier.ptr();
    auto* callers = dynamicDowncast<MutableArray>(m_runningConnections->objectForKey(identifier));
    if (!callers)
        return; // being delivered: the delivery skips it
    for (size_t index = 0; index < callers->count(); ++index) {
        if (callers->objectAtIndex(index) == caller.userInfo) {
            // Releases the caller's blocks and what they captured.
            callers->removeObjectAtIndex(index);
            break;
        }
    }
    if (callers->count())
        return;
    // The last caller is gone: so is the request.
    m_runningConnections->removeObjectForKey(identifier);
    if (auto found = m_clientInfos.find(identifier->view()); found != m_clientInfos.end()) {
        auto inFlight = std::move(found->second);
        m_clientInfos.erase(found);
        for (auto& clientInfo : inFlight) {
            if (m_api)
                m_api->cancelMethodWithUserInfo(clientInfo.ptr());
        }
    }
}

bool VXAPIController::isCancelled(const Dictionary* userInfo, bool wasCancellable) const
{
    return wasCancellable && !m_cancellableCallers.contains(userInfo);
}

void VXAPIController::excuteCallbacksAndRemoveRequestWithData(Data* data, Error* error, String* requestIdentifier)
{
    checkThread(__func__);
    Ref protectedThis { *this }; // a block may release the last other reference to us
    struct Caller {
        RefPtr<Dictionary> userInfo;
        RefPtr<VXAPICallbackBlockObject> block;
        bool cancellable;
        RefPtr<VXAPIUnchangedAnswerBlockObject> unchanged;
    };
    std::vector<Caller> callers;
    if (requestIdentifier) {
        if (auto* running = dynamicDowncast<Array>(m_runningConnections->objectForKey(requestIdentifier))) {
            for (auto* caller : *running) {
                auto* userInfo = dynamicDowncast<Dictionary>(caller);
                if (auto* block = userInfo ? dynamicDowncast<VXAPICallbackBlockObject>(userInfo->objectForKey(VXAPICallbackBlockKey)) : nullptr)
                    callers.push_back({ userInfo, block, m_cancellableCallers.contains(userInfo),
                        userInfo->objectForKey<VXAPIUnchangedAnswerBlockObject>(VXAPIUnchangedAnswerBlockKey) });
            }
        }
        m_runningConnections->removeObjectForKey(requestIdentifier);
    }
    setExecutingCallbacksRequestIdentifier(requestIdentifier);
    bool unchanged = std::exchange(m_deliveringUnchangedAnswer, false) && data && !error;
    struct Delivering {
        Data*& answer;
        Data* previous;
        ~Delivering() { answer = previous; }
    } delivering { m_answerBeingDelivered, std::exchange(m_answerBeingDelivered, data) };
    for (auto& caller : callers) {
        // A block before this one may have cancelled it.
        if (isCancelled(caller.userInfo.get(), caller.cancellable))
            continue;
        // Its call ends now: its token is no longer active.
        m_cancellableCallers.erase(caller.userInfo.get());
        if (unchanged && caller.unchanged && (*caller.unchanged)(this, *data))
            continue;
        // Each caller gets a tree of its own.
        RefPtr<Object> json = data ? JSONObject(*data) : nullptr;
        (*caller.block)(this, json.get(), error);
    }
    setExecutingCallbacksRequestIdentifier(nullptr);
}

void VXAPIController::loadForCollectionController(const VXAPICollectionRequest& collection, VXAPICallbackBlock block, Subscription* subscription)
{
    checkThread(__func__);
    loadForCollectionController(collection, std::move(block), nullptr, subscription);
}

void VXAPIController::loadForCollectionController(const VXAPICollectionRequest& collection, VXAPICallbackBlock block, VXAPIUnchangedAnswerBlock unchanged, Subscription* subscription)
{
    checkThread(__func__);
    auto userInfo = MutableDictionary::create();
    if (auto completion = VXAPICallbackBlockObject::create(std::move(block)))
        userInfo->setObject(completion.get(), VXAPICallbackBlockKey);
    if (auto hook = VXAPIUnchangedAnswerBlockObject::create(std::move(unchanged)))
        userInfo->setObject(hook.get(), VXAPIUnchangedAnswerBlockKey);
    auto resource = collection.resource();
    auto parameters = collection.requestParameters();
    perform("GET", resource->view(), parameters.get(), *userInfo, subscription);
}

// MARK: Delegate

namespace {

String* requestIdentifierIn(Dictionary* userInfo)
{
    return userInfo ? userInfo->objectForKey<String>(VXAPIRequestIdentifierKey) : nullptr;
}

} // namespace

void VXAPIController::forgetClientInfo(Dictionary* clientInfo)
{
    auto* identifier = requestIdentifierIn(clientInfo);
    auto found = identifier ? m_clientInfos.find(identifier->view()) : m_clientInfos.end();
    if (found == m_clientInfos.end())
        return;
    std::erase_if(found->second, [&](const Ref<Dictionary>& inFlight) { return inFlight.ptr() == clientInfo; });
    if (found->second.empty())
        m_clientInfos.erase(found);
}

void VXAPIController::velvoxAPIDidFinishWithData(VXVelvoxAPI& api, Data* data, Object*, Dictionary* userInfo)
{
    forgetClientInfo(userInfo);
    if (m_answerObserver)
        m_answerObserver(nullptr);
    m_deliveringUnchangedAnswer = api.deliveryBeingMade().notModified;
    excuteCallbacksAndRemoveRequestWithData(data, nullptr, requestIdentifierIn(userInfo));
}

void VXAPIController::velvoxAPIDidFailWithError(VXVelvoxAPI&, Error* error, Object*, Dictionary* userInfo)
{
    Ref protectedThis { *this };
    RefPtr<Error> protectedError = error;
    forgetClientInfo(userInfo);
    if (m_answerObserver)
        m_answerObserver(error);
    excuteCallbacksAndRemoveRequestWithData(nullptr, error, requestIdentifierIn(userInfo));
    if (error && error->code() == 401)
        VXLog("VXAPIController could not complete request, because the API is not correctly authenticed.");
}

void VXAPIController::velvoxAPIDidReceiveData(VXVelvoxAPI&, Data*, Object*, Dictionary*)
{
}

void VXAPIController::velvoxAPIDidReceiveBytes(VXVelvoxAPI&, uint64_t, uint64_t, Object*, Dictionary*)
{
}

void VXAPIController::velvoxAPIDidSendBytes(VXVelvoxAPI&, uint64_t bytes, uint64_t total, Object*, Dictionary* userInfo)
{
    auto* identifier = requestIdentifierIn(userInfo);
    auto* callers = identifier ? dynamicDowncast<Array>(m_runningConnections->objectForKey(identifier)) : nullptr;
    // A client never reports zero bytes sent; such a call is ignored rather than divided by.
    if (!callers || !bytes)
        return;
    Ref protectedThis { *this };
    Ref<Array> snapshot = callers->copy();
    std::vector<bool> cancellable;
    for (auto* caller : *snapshot)
        cancellable.push_back(m_cancellableCallers.contains(static_cast<const Dictionary*>(dynamicDowncast<Dictionary>(caller))));
    float progress = static_cast<float>(static_cast<double>(total / bytes));
    for (size_t index = 0; index < snapshot->count(); ++index) {
        auto* info = dynamicDowncast<Dictionary>(snapshot->objectAtIndex(index));
        if (isCancelled(info, cancellable[index]))
            continue;
        if (auto* block = info ? dynamicDowncast<VXAPIProgressBlockObject>(info->objectForKey(VXAPIProgressBlockKey)) : nullptr)
            (*block)(this, progress);
    }
}

// MARK: Endpoints

// One endpoint of the service: its verb, its path ("%@" stands for the
// identifier, which goes in as exactly one segment, whatever a service sent
// as an id), and what a call without its identifier (or query) raises.
struct VXAPIEndpoint {
    const char* method;
    const char* path;
    const char* missing { nullptr }; // null: the call takes no identifier
};

namespace {

using Endpoint = VXAPIEndpoint;

// The paths keep their leading "/" or its absence exactly: the request
// identifiers of the coalescing tell "/me/followings/1" and "me/followings/1" apart.
constexpr Endpoint meUser { "GET", "/me" };
constexpr Endpoint meFavorites { "GET", "/me/favorites" };
constexpr Endpoint meIncoming { "GET", "/me/activities/tracks" };
constexpr Endpoint meExclusive { "GET", "/me/activities/tracks/exclusive" };
constexpr Endpoint meTracks { "GET", "/me/tracks" };
constexpr Endpoint meIsFollowing { "GET", "/me/followings/%@", "userIdentifier required for following check" };
constexpr Endpoint meIsFollowedBy { "GET", "/me/followers/%@", "userIdentifier required for follower check" };
constexpr Endpoint startFollowing { "PUT", "/me/followings/%@", "userIdentifier required to start following a user" };
constexpr Endpoint stopFollowing { "DELETE", "/me/followings/%@", "userIdentifier required to stop following a user" };
constexpr Endpoint userFavorites { "GET", "/users/%@/favorites", "You need to give a userID" };
constexpr Endpoint userFollowers { "GET", "/users/%@/followers", "You need to give a userID" };
constexpr Endpoint userFollowings { "GET", "/users/%@/followings", "You need to give a userID" };
constexpr Endpoint userConnections { "GET", "/users/%@/connections", "You need to give a userID" };
constexpr Endpoint userTracks { "GET", "/users/%@/tracks", "You need to give a userID" };
constexpr Endpoint user { "GET", "/users/%@", "You need to give a userID" };
constexpr Endpoint follow { "PUT", "me/followings/%@", "You need to give a userID" };
constexpr Endpoint unfollow { "DELETE", "me/followings/%@", "You need to give a userID" };
constexpr Endpoint usersSearch { "GET", "users", "You need to provide a query to search for users" };
constexpr Endpoint track { "GET", "tracks/%@", "You need to give a trackId" };
constexpr Endpoint favorite { "PUT", "me/favorites/%@", "You need to give a trackID" };
constexpr Endpoint unfavorite { "DELETE", "me/favorites/%@", "You need to give a trackID" };
constexpr Endpoint trackComments { "GET", "tracks/%@/comments", "You need to give a trackID" };
constexpr Endpoint postComment { "POST", "tracks/%@/comments", "You need to provide a trackId to comment on" };
constexpr Endpoint tracksSearch { "GET", "tracks", "You need to provide a query to search for tracks" };

// The search endpoints send their query as "q", beside (and over) the parameters.
Ref<Dictionary> withQuery(Dictionary* parameters, String& query)
{
    auto copy = parameters ? parameters->mutableCopy() : MutableDictionary::create();
    copy->setObject(&query, "q");
    return copy;
}

} // namespace

void VXAPIController::send(std::string_view method, std::string_view resource, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription)
{
    // A null block cannot be stored: the dictionary raises, before anything is sent.
    auto userInfo = Dictionary::create({ { VXAPICallbackBlockKey, VXAPICallbackBlockObject::create(std::move(block)).get() } });
    perform(method, resource, parameters, *userInfo, subscription);
}

void VXAPIController::call(const VXAPIEndpoint& endpoint, Object* identifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription)
{
    if (!endpoint.missing) {
        send(endpoint.method, endpoint.path, parameters, std::move(block), subscription);
        return;
    }
    VXAssert(identifier, "%s", endpoint.missing);
    send(endpoint.method, format(endpoint.path, VXVelvoxAPI::pathSegment(identifier)), parameters, std::move(block), subscription);
}

void VXAPIController::search(const VXAPIEndpoint& endpoint, String* query, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription)
{
    VXAssert(query, "%s", endpoint.missing);
    send(endpoint.method, endpoint.path, withQuery(parameters, *query).ptr(), std::move(block), subscription);
}

void VXAPIController::meUserRessouce(VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(meUser, nullptr, nullptr, std::move(block), subscription); }
void VXAPIController::favoritesForCurrentUserWithParameters(Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(meFavorites, nullptr, parameters, std::move(block), subscription); }
void VXAPIController::incommingForCurrentUserWithParameters(Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(meIncoming, nullptr, parameters, std::move(block), subscription); }
void VXAPIController::exclusiveForCurrentUserWithParameters(Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(meExclusive, nullptr, parameters, std::move(block), subscription); }
void VXAPIController::tracksForCurrentUserWithParameters(Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(meTracks, nullptr, parameters, std::move(block), subscription); }
void VXAPIController::meIsFollowingUserForIdentifier(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(meIsFollowing, userIdentifier, nullptr, std::move(block), subscription); }
void VXAPIController::meIsFollowedByUserForIdentifier(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(meIsFollowedBy, userIdentifier, nullptr, std::move(block), subscription); }
void VXAPIController::startFollowingUserForIdentifier(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(startFollowing, userIdentifier, nullptr, std::move(block), subscription); }
void VXAPIController::stopFollowingByUserForIdentifier(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(stopFollowing, userIdentifier, nullptr, std::move(block), subscription); }
void VXAPIController::favoritesForUserIdentifer(Object* userIdentifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(userFavorites, userIdentifier, parameters, std::move(block), subscription); }
void VXAPIController::followersForUserIdentifer(Object* userIdentifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(userFollowers, userIdentifier, parameters, std::move(block), subscription); }
void VXAPIController::followingsForUserIdentifer(Object* userIdentifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(userFollowings, userIdentifier, parameters, std::move(block), subscription); }
void VXAPIController::connectionsForUserIdentifer(Object* userIdentifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(userConnections, userIdentifier, parameters, std::move(block), subscription); }
void VXAPIController::tracksForUser(Object* userIdentifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(userTracks, userIdentifier, parameters, std::move(block), subscription); }
void VXAPIController::userRessouceWithIdentifer(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(user, userIdentifier, nullptr, std::move(block), subscription); }
void VXAPIController::followUserWithIdentifer(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(follow, userIdentifier, nullptr, std::move(block), subscription); }
void VXAPIController::unfollowUserWithIdentifer(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(unfollow, userIdentifier, nullptr, std::move(block), subscription); }
void VXAPIController::usersForSearch(String* query, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    search(usersSearch, query, parameters, std::move(block), subscription); }
void VXAPIController::trackRessouceWithIdentifer(Object* trackIdentifier, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(track, trackIdentifier, nullptr, std::move(block), subscription); }
void VXAPIController::favoriteTrackIdentifer(Object* trackIdentifier, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(favorite, trackIdentifier, nullptr, std::move(block), subscription); }
void VXAPIController::unfavoriteTrackIdentifer(Object* trackIdentifier, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(unfavorite, trackIdentifier, nullptr, std::move(block), subscription); }
void VXAPIController::commentsForTrackIdentifer(Object* trackIdentifier, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(trackComments, trackIdentifier, nullptr, std::move(block), subscription); }
void VXAPIController::postCommentForTrackIdentifer(Object* trackIdentifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    call(postComment, trackIdentifier, parameters, std::move(block), subscription); }
void VXAPIController::tracksForSearch(String* query, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription) { checkThread(__func__);
    search(tracksSearch, query, parameters, std::move(block), subscription); }

void VXAPIController::postTrack(Dictionary* track, VXAPIProgressBlock progressBlock, VXAPICallbackBlock completionBlock, Subscription* subscription)
{
    checkThread(__func__);
    VXAssert(track, "You need to give track parameters");
    // As a nil-terminated list: no completion block ends the list at once.
    auto userInfo = MutableDictionary::create();
    if (auto completion = VXAPICallbackBlockObject::create(std::move(completionBlock))) {
        userInfo->setObject(completion.get(), VXAPICallbackBlockKey);
        if (auto progress = VXAPIProgressBlockObject::create(std::move(progressBlock)))
            userInfo->setObject(progress.get(), VXAPIProgressBlockKey);
    }
    auto record = userInfo->copy();
    perform("POST", "tracks", track, *record, subscription);
}

} // namespace velvox
