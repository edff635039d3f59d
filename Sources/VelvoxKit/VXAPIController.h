#pragma once

// The single gateway between the framework and the service. It owns a copy of
// an authenticated client (VXVelvoxAPI) with itself as delegate, identifies
// every request by verb, path and sorted parameters, attaches an identical GET
// issued while one is running to that request instead of sending it again, and
// when the answer arrives calls every waiting completion block, in the order
// they were registered, each with its own freshly decoded JSON value.
//
// Everything runs on one thread: the callers' and the client's callbacks
// arrive on the run loop of the thread that issued the requests.
//
// Every operation takes an optional Subscription*: given one, it receives a
// token for the call. Cancelling the token (or destroying it) drops the
// caller: its blocks are never called after, and what they captured is
// released at once (during the delivery of the same answer to other callers,
// when that delivery ends). A GET shared with other callers keeps running for
// them; when its last caller cancels, the transfer itself is stopped and the
// request leaves runningConnections(). The token stops being active when the
// call ends. Without a Subscription*, a call behaves exactly as before.
//
// The controller belongs to the thread that made it: a call from another
// thread raises WrongThreadException naming the call. A token may be
// cancelled on any thread; from another one, the cancellation is posted to
// the controller's run loop.

#include <Platform/Block.h>
#include <Platform/Collections.h>
#include <Platform/ThreadAffinity.h>
#include <Platform/Values.h>
#include <VelvoxAPI/VXVelvoxAPI.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string_view>
#include <unordered_map>

namespace velvox {

struct VXAPIEndpoint;

inline constexpr std::string_view VXAPICallbackBlockKey = "VXAPICallbackBlockKey";
inline constexpr std::string_view VXAPIProgressBlockKey = "VXAPIProgressBlockKey";
inline constexpr std::string_view VXAPIRequestIdentifierKey = "VXAPIRequestIdentifierKey";
inline constexpr std::string_view VXAPIUnchangedAnswerBlockKey = "VXAPIUnchangedAnswerBlockKey";
inline constexpr std::string_view VXRecursiveRequestCallbackException = "VXRecursiveRequestCallbackException";

class VXAPIController;

// Completion: the controller, the decoded answer (dictionary, array or null)
// and the error (null on success). Called once per caller.
using VXAPICallbackBlock = std::function<void(VXAPIController*, Object* json, Error* error)>;
// Upload progress: the controller and total ÷ sent, an integer quotient, as a float.
using VXAPIProgressBlock = std::function<void(VXAPIController*, float progress)>;
using VXAPICallbackBlockObject = Block<void(VXAPIController*, Object*, Error*)>;
using VXAPIProgressBlockObject = Block<void(VXAPIController*, float)>;
// Offered an answer the service confirmed unchanged (a 304 and the body kept
// from before): true when the caller took it without the decoded tree, whose
// decoding is then skipped; false, and its completion block gets the tree.
using VXAPIUnchangedAnswerBlock = std::function<bool(VXAPIController*, Data& body)>;
using VXAPIUnchangedAnswerBlockObject = Block<bool(VXAPIController*, Data&)>;

// What a remote collection tells the controller when it loads a page.
class VXAPICollectionRequest {
public:
    virtual ~VXAPICollectionRequest() = default;
    virtual Ref<String> resource() const = 0;
    virtual RefPtr<Dictionary> requestParameters() const = 0;
};

class VXAPIController final : public Object, public VXVelvoxAPIDelegate {
    VX_OBJECT(VXAPIController)
public:
    // initWithAPI: keeps a copy of the client made with itself as delegate.
    // With no client, requests are dropped silently.
    static Ref<VXAPIController> create(VXVelvoxAPI* api);

    VXVelvoxAPI* api() const { return m_api.get(); }
    MutableDictionary& runningConnections() const { return m_runningConnections; }
    void setRunningConnections(MutableDictionary& connections) { m_runningConnections = connections; }
    RefPtr<String> executingCallbacksRequestIdentifier() const;
    void setExecutingCallbacksRequestIdentifier(String*);

    // Sends the request unless an identical GET is already running, in which
    // case the caller shares that request's answer. `userInfo` is the caller's
    // record: its completion block under VXAPICallbackBlockKey, its progress
    // block under VXAPIProgressBlockKey. Raises VXRecursiveRequestCallbackException
    // when a completion block starts a second identical GET during its delivery.
    void performMethod(const String& method, const String& onResource, Dictionary* withParameters, Object* context, Dictionary* userInfo);
    // "GET-/me-", "GET-me/favorites-limit=20-offset=0".
    Ref<String> uniqIdentifierForPerformingMethod(const String& method, const String& onResource, Dictionary* withParameters) const;
    void excuteCallbacksAndRemoveRequestWithData(Data* data, Error* error, String* requestIdentifier);
    void loadForCollectionController(const VXAPICollectionRequest&, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void loadForCollectionController(const VXAPICollectionRequest&, VXAPICallbackBlock block, VXAPIUnchangedAnswerBlock unchanged, Subscription* subscription);
    // Told of every answer (a null error on success) before its callers are:
    // a store learns from it that the service answers again.
    using AnswerObserver = std::function<void(Error*)>;
    void setAnswerObserver(AnswerObserver observer) { m_answerObserver = std::move(observer); }
    // The body whose answer is being handed to the callers (null outside a delivery).
    Data* answerBeingDelivered() const { return m_answerBeingDelivered; }

    // The service's operations. Each asserts its required argument, formats
    // its path, and sends with the given parameters. A null block raises.
    void meUserRessouce(VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void favoritesForCurrentUserWithParameters(Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void incommingForCurrentUserWithParameters(Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void exclusiveForCurrentUserWithParameters(Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void tracksForCurrentUserWithParameters(Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void meIsFollowingUserForIdentifier(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void meIsFollowedByUserForIdentifier(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void startFollowingUserForIdentifier(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void stopFollowingByUserForIdentifier(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void favoritesForUserIdentifer(Object* userIdentifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void followersForUserIdentifer(Object* userIdentifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void followingsForUserIdentifer(Object* userIdentifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void connectionsForUserIdentifer(Object* userIdentifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void tracksForUser(Object* userIdentifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void userRessouceWithIdentifer(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void followUserWithIdentifer(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void unfollowUserWithIdentifer(Object* userIdentifier, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void usersForSearch(String* query, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void trackRessouceWithIdentifer(Object* trackIdentifier, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    // POST "tracks" with the track dictionary (Data or file URL values upload as multipart).
    void postTrack(Dictionary* track, VXAPIProgressBlock progressBlock, VXAPICallbackBlock completionBlock, Subscription* subscription = nullptr);
    void favoriteTrackIdentifer(Object* trackIdentifier, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void unfavoriteTrackIdentifer(Object* trackIdentifier, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void commentsForTrackIdentifer(Object* trackIdentifier, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void postCommentForTrackIdentifer(Object* trackIdentifier, Dictionary* withParameters, VXAPICallbackBlock block, Subscription* subscription = nullptr);
    void tracksForSearch(String* query, Dictionary* parameters, VXAPICallbackBlock block, Subscription* subscription = nullptr);

    // VXVelvoxAPIDelegate
    void velvoxAPIDidFinishWithData(VXVelvoxAPI&, Data* data, Object* context, Dictionary* userInfo) override;
    void velvoxAPIDidFailWithError(VXVelvoxAPI&, Error* error, Object* context, Dictionary* userInfo) override;
    void velvoxAPIDidReceiveData(VXVelvoxAPI&, Data* data, Object* context, Dictionary* userInfo) override;
    void velvoxAPIDidReceiveBytes(VXVelvoxAPI&, uint64_t bytes, uint64_t total, Object* context, Dictionary* userInfo) override;
    void velvoxAPIDidSendBytes(VXVelvoxAPI&, uint64_t bytes, uint64_t total, Object* context, Dictionary* userInfo) override;
    // The received-data and received-bytes calls do nothing here: the client need not make them.
    bool velvoxAPIWantsReceivedData() const override { return false; }

private:
    VXAPIController();
    ~VXAPIController() override;

    // The endpoint methods' common road.
    void send(std::string_view method, std::string_view resource, Dictionary* parameters, VXAPICallbackBlock block, Subscription*);
    // An endpoint of the table in the source: its identifier checked and put in its path.
    void call(const VXAPIEndpoint&, Object* identifier, Dictionary* parameters, VXAPICallbackBlock block, Subscription*);
    // A search endpoint: the query checked and sent as "q".
    void search(const VXAPIEndpoint&, String* query, Dictionary* parameters, VXAPICallbackBlock block, Subscription*);
    // performMethod's work; the identifier of the request the caller waits
    // for, or null when nothing was sent (no client).
    RefPtr<String> enqueue(const String& method, const String& resource, Dictionary* parameters, Object* context, Dictionary* userInfo);
    // performMethod with a token for the caller in `subscription`, when given.
    void perform(std::string_view method, std::string_view resource, Dictionary* parameters, Dictionary& userInfo, Subscription* subscription);

    // A caller that a token can cancel, for as long as its call is under way.
    void checkThread(const char* function) const { m_affinity.check("VXAPIController", function); }

    struct CancellableCaller {
        VXAPIController* controller;
        const Dictionary* userInfo;
        Ref<String> requestIdentifier;
    };
    void cancelCaller(const CancellableCaller&);
    // Whether a caller's blocks may no longer be called: its token cancelled it.
    bool isCancelled(const Dictionary* userInfo, bool wasCancellable) const;

    ThreadAffinity m_affinity;
    RefPtr<VXVelvoxAPI> m_api;
    mutable Ref<MutableDictionary> m_runningConnections;
    mutable std::mutex m_executingMutex;
    RefPtr<String> m_executingCallbacksRequestIdentifier;
    Data* m_answerBeingDelivered { nullptr };
    AnswerObserver m_answerObserver;
    bool m_deliveringUnchangedAnswer { false };
    std::unordered_map<const Dictionary*, std::shared_ptr<CancellableCaller>> m_cancellableCallers;
    // What the client was given for each request in flight, by identifier, to
    // cancel them with: an identical PUT, POST or DELETE sent while one runs
    // makes two in flight, whose callers are the later one's.
    struct IdentifierHash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
    };
    std::unordered_map<std::string, std::vector<Ref<Dictionary>>, IdentifierHash, std::equal_to<>> m_clientInfos;
    void forgetClientInfo(Dictionary* clientInfo);
};

} // namespace velvox
