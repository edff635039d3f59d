#pragma once

// The service's authenticated HTTP client. Made with the service's base URL
// and an OAuth access token, sent as "Authorization: OAuth <token>".
//
// performMethod() joins the resource path to the base URL (with or without a
// leading "/", the same URL), sends GET and DELETE parameters in the query
// string and POST and PUT parameters as a form, or as multipart form data when
// a value is Data or a file URL (an upload). It then calls the delegate, as
// VXVelvoxAPIDelegate describes. An HTTP status of 400 or more fails with an
// error in VXVelvoxAPIErrorDomain whose code is the status and whose user info
// carries the body, and so does any other status that is not 2xx (redirects are
// not followed: a 3xx answer is a failure with its status); a transfer failure
// fails with the URL loader's error (URLErrorDomain, libcurl's code and description).
//
// A resource path is sent only when it stays a path below the base URL: an
// empty, "." or ".." segment (also percent-encoded), a "#", white space, a
// control or non-ASCII byte fails the request with
// VXVelvoxAPIErrorInvalidResource before anything is sent. Identifiers go into
// paths through pathSegment(), which keeps them one segment each.
//
// At most maximumRunningRequests() requests run at once; later ones wait, in
// the order they were made, for a running one to end. A waiting request's
// time-out starts when it is sent.
//
// Retries (RetryPolicy, off unless set): an idempotent request (a GET, or a
// PUT or DELETE of "me/followings/<id>" or "me/favorites/<id>") that fails
// for a passing reason (no connection, a time-out, a broken transfer, HTTP 429
// or 5xx) is sent again after a wait, at most maximumRetries times. The
// delegate hears of it as of one request: its outcome is that of the last attempt.
//
// Validators (AnswerCache, on unless set off): the body of a GET's answer
// that names an ETag or a Last-Modified is kept on disk, per account and URL,
// with them; the next GET of that URL asks If-None-Match / If-Modified-Since,
// and a 304 hands the kept body to the delegate as the answer, exactly as if
// it had come again. A service that sends no validators sees no difference.

#include "VXVelvoxAPIDelegate.h"

#include <Platform/Subscription.h>
#include <Platform/URLLoading.h>
#include <Platform/ValidatedDiskCache.h>

#include <map>
#include <memory>
#include <string_view>
#include <unordered_map>

namespace velvox {

inline constexpr std::string_view VXVelvoxAPIErrorDomain = "VXVelvoxAPIErrorDomain";
// User info keys of an HTTP failure: the body (Data) and the status (Number).
inline constexpr std::string_view VXVelvoxAPIResponseBodyKey = "VXVelvoxAPIResponseBodyKey";
inline constexpr std::string_view VXVelvoxAPIResponseStatusKey = "VXVelvoxAPIResponseStatusKey";
// The code of a request refused before it was sent because its resource path
// would not stay a path of the service (HTTP failures use their status, 100-599).
inline constexpr int64_t VXVelvoxAPIErrorInvalidResource = 1;

class VXVelvoxAPI : public Object {
    VX_OBJECT(VXVelvoxAPI)
public:
    // When and how often a failed idempotent request is sent again. The
    // default sends nothing again: a failing request fails at once, exactly as
    // a client without retries does, which callers that count requests or
    // keep their own spaced attempts rely on. Hosts turn it on (recommended()).
    //
    // The n-th retry (from 0) waits d/2 plus a random part of d/2 ("equal
    // jitter"), d being initialDelay * 2^n capped at maximumDelay, so that
    // clients that failed together do not come back together, and no retry
    // comes at once. A failed answer with "Retry-After" (delta-seconds or an
    // HTTP date, RFC 9110) waits that long instead, capped at maximumRetryAfter;
    // a date already past waits nothing; a value that is neither is ignored.
    struct RetryPolicy {
        unsigned maximumRetries { 0 };
        double initialDelay { 1 };
        double maximumDelay { 30 };
        double maximumRetryAfter { 60 };

        // Three retries, 1 s doubling up to 30 s, "Retry-After" up to 60 s.
        static RetryPolicy recommended()
        {
            RetryPolicy policy;
            policy.maximumRetries = 3;
            return policy;
        }
    };

    // Where answers are kept for revalidation. Kept privately (a 0700 folder,
    // 0600 files), bounded in bytes (the oldest use goes first), checked
    // whole when read back (a damaged or foreign file is a miss), and keyed
    // by the account (a digest of the token, never the token) and the URL.
    // Not kept: answers with "Cache-Control: no-store" (which also drops what
    // was kept), answers over a quarter of the capacity, and validators longer
    // than maximumValidatorLength or holding control characters.
    struct AnswerCache {
        bool enabled { true };
        // Empty: defaultPath().
        std::string path;
        size_t capacity { 32u * 1024 * 1024 };
        // Of those, the bodies also held in memory, so that a revalidation
        // reads no file (and hands over the very body it handed over before).
        size_t memoryCapacity { 8u * 1024 * 1024 };
        static constexpr size_t maximumValidatorLength = 1024;
        // "Velvox/Answers" in the per-user cache folder ($XDG_CACHE_HOME, else ~/.cache).
        static std::string defaultPath();
    };

    // Null when the configuration is refused (see configurationProblem); then
    // `problem`, when given, receives the reason.
    static RefPtr<VXVelvoxAPI> create(std::string_view baseURL, std::string_view accessToken, std::string* problem = nullptr);
    // Why a client cannot be made with this base URL and token, or empty when it
    // can: the base URL must be an http or https URL with a host (no other
    // protocol is ever spoken), and the token must hold no control character (a
    // line break in it would add request headers). The token never appears in the text.
    static std::string configurationProblem(std::string_view baseURL, std::string_view accessToken);

    // A new client with the same authentication and configuration whose
    // delegate is the given object. The delegate is not retained: it must
    // outlive the client's requests (the API controller owns its client).
    // Virtual, as performMethod(), so that tests can stand in a client of their own.
    virtual Ref<VXVelvoxAPI> copyWithAPIDelegate(VXVelvoxAPIDelegate*) const;

    // Sends the request asynchronously; the delegate hears of it later.
    virtual void performMethod(const String& method, const String& resource, Dictionary* parameters, Object* context, Dictionary* userInfo);
    // Stops the request last performed with this very userInfo object, whether
    // it runs (the transfer is cancelled), waits its turn, waits to be sent
    // again or was refused; the
    // delegate hears nothing more of it. Does nothing once it has ended.
    virtual void cancelMethodWithUserInfo(Dictionary* userInfo);

    const std::string& baseURL() const { return m_baseURL; }
    const std::string& accessToken() const { return m_accessToken; }
    // Names the account in what is kept for it (kept answers, waiting
    // changes): 16 hex digits of a digest of the token, never the token.
    const std::string& accountDigest() const;
    VXVelvoxAPIDelegate* delegate() const { return m_delegate; }
    // The full URL a resource path and GET parameters make.
    std::string URLForResource(std::string_view resource, Dictionary* queryParameters) const;
    // Why a resource path is refused, or empty when it may be sent.
    static std::string resourceProblem(std::string_view resource);
    // An identifier (by its description) as exactly one path segment: every
    // byte but the unreserved ones percent-encoded, so "1001/../x", "5?x=y" or
    // "%2e" cannot change the path. A decimal identifier stays as it is.
    static Ref<String> pathSegment(Object* identifier);

    double timeout() const { return m_timeout; }
    void setTimeout(double seconds) { m_timeout = seconds; }
    double connectTimeout() const { return m_connectTimeout; }
    void setConnectTimeout(double seconds) { m_connectTimeout = seconds; }
    size_t runningRequestCount() const { return m_tasks.size(); }
    // Requests made but waiting for a running one to end.
    size_t queuedRequestCount() const { return m_queue.size(); }
    // How many requests run at once; 0 means no limit. 8 unless set.
    size_t maximumRunningRequests() const { return m_maximumRunningRequests; }
    void setMaximumRunningRequests(size_t count) { m_maximumRunningRequests = count; }
    // The largest answer body accepted (after decompression); a longer one fails
    // the request with the URL loader's size error. 64 MiB unless set.
    size_t maximumAnswerSize() const { return m_maximumAnswerSize; }
    void setMaximumAnswerSize(size_t bytes) { m_maximumAnswerSize = bytes; }
    // A request follows the policy the client had when it was performed.
    const RetryPolicy& retryPolicy() const { return m_retryPolicy; }
    void setRetryPolicy(const RetryPolicy& policy) { m_retryPolicy = policy; }
    // Requests that failed and wait to be sent again. While it waits, a request
    // holds no running slot: a failing service does not keep the other
    // requests waiting. When its time comes, it takes its turn as a new
    // request would, ahead of the requests made after it.
    size_t retryingRequestCount() const { return m_retries.size(); }
    // While the delegate hears of an answer (didFinishWithData): how long its
    // "Cache-Control" said it stays fresh, in seconds ("max-age", at most ten
    // years; "no-cache" and "no-store" are 0), or a negative number when it
    // said nothing. Negative outside a delivery.
    double maximumAgeOfAnswerBeingDelivered() const { return m_deliveringMaximumAge; }
    // While the delegate hears of a request's end: the HTTP status (0 for a
    // transfer failure), whether a 304 handed over the kept answer, and how
    // many times the request was sent again before. Zero outside.
    struct Delivery {
        long status { 0 };
        bool notModified { false };
        unsigned retries { 0 };
    };
    const Delivery& deliveryBeingMade() const { return m_delivering; }
    // The "max-age" of a Cache-Control header value, as above.
    static double maximumAgeInCacheControl(std::string_view);

    // Applies to requests sent from now on.
    const AnswerCache& answerCache() const { return m_answerCacheConfiguration; }
    void setAnswerCache(const AnswerCache&);
    // What is kept (the files of every account in the folder), for a host to show.
    size_t keptAnswerBytes();
    size_t keptAnswerCount();
    // The same for a folder, without a client: {answers, bytes}.
    static std::pair<size_t, size_t> keptAnswers(const AnswerCache&);
    // Answers that came as a 304 and were handed over from what was kept, and
    // requests sent with validators, since this client was made.
    uint64_t notModifiedCount() const { return m_notModifiedCount; }
    uint64_t conditionalRequestCount() const { return m_conditionalRequestCount; }

    // Whether a request of this method on this resource may be sent twice
    // with the same effect as once, and so be retried.
    static bool isIdempotent(std::string_view method, std::string_view resource);
    // Whether an error says that the service could not be reached (no
    // connection, a time-out, a connection that broke): no answer came.
    static bool isUnreachable(const Error*);
    // Of those, whether the request may still have reached the service (all
    // but a failure to resolve or connect).
    static bool mayHaveReachedTheService(const Error*);

protected:
    VXVelvoxAPI(std::string baseURL, std::string accessToken)
        : m_baseURL(std::move(baseURL))
        , m_accessToken(std::move(accessToken))
    {
    }
    ~VXVelvoxAPI() override;
    void setDelegate(VXVelvoxAPIDelegate* delegate) { m_delegate = delegate; }

private:
    struct QueuedRequest {
        uint64_t identifier;
        std::string method;
        Ref<String> resource;
        RefPtr<Dictionary> parameters;
        RefPtr<Object> context;
        RefPtr<Dictionary> userInfo;
        RetryPolicy policy;
        // Retries sent so far, and how many may still follow (0 for a request
        // that is not idempotent or when the policy is off).
        unsigned retries { 0 };
        unsigned retriesLeft { 0 };
        // A GET's key in the answer cache (empty: not kept), and the body
        // kept for it when this attempt was sent with its validators.
        std::string answerKey;
        RefPtr<Data> keptBody;
    };
    ValidatedDiskCache* answers();
    static std::shared_ptr<ValidatedDiskCache> answerFiles(const AnswerCache&, size_t maximumAnswerSize);
    // Adds the validators of what is kept for the request, if anything.
    void addValidators(QueuedRequest&, URLRequest&);
    // Keeps (or drops) a GET's answer as its headers say.
    void keepAnswer(const QueuedRequest&, URLResponse&);
    URLRequest requestFor(const std::string& method, const String& resource, Dictionary* parameters) const;
    URLTaskCallbacks callbacksFor(std::shared_ptr<QueuedRequest>);
    // How long to wait before sending a failed request again, or a negative
    // number when it is not sent again.
    double retryDelay(const QueuedRequest&, URLResponse*, Error*);
    void retryLater(std::shared_ptr<QueuedRequest>, double delay);
    void startOrQueue(QueuedRequest&&);
    void start(QueuedRequest&&);
    void startQueuedRequests();
    void refuse(std::string problem, Object* context, Dictionary* userInfo);
    void forgetUserInfo(const Dictionary*, uint64_t identifier);

    std::string m_baseURL;
    std::string m_accessToken;
    mutable std::string m_accountDigest;
    VXVelvoxAPIDelegate* m_delegate { nullptr };
    double m_timeout { 60 };
    double m_connectTimeout { 10 };
    size_t m_maximumAnswerSize { URLRequest::defaultMaximumBodySize };
    uint64_t m_nextTask { 0 };
    std::unordered_map<uint64_t, Ref<URLTask>> m_tasks;
    // Waiting requests by identifier, which is the order they were made in.
    std::map<uint64_t, QueuedRequest> m_queue;
    // The request each userInfo object was last performed with, for cancelling.
    std::unordered_map<const Dictionary*, uint64_t> m_requestForUserInfo;
    size_t m_maximumRunningRequests { 8 };
    bool m_startingQueued { false };
    // Refusals are told on a later turn of the run loop, as any failure is.
    std::unordered_map<uint64_t, Subscription> m_refusals;
    RetryPolicy m_retryPolicy;
    AnswerCache m_answerCacheConfiguration;
    // Shared by the clients of a thread that use one folder.
    std::shared_ptr<ValidatedDiskCache> m_answers;
    uint64_t m_notModifiedCount { 0 };
    double m_deliveringMaximumAge { -1 };
    Delivery m_delivering;
    uint64_t m_conditionalRequestCount { 0 };
    // The timers of requests waiting to be sent again.
    std::unordered_map<uint64_t, Subscription> m_retries;
};

} // namespace velvox
