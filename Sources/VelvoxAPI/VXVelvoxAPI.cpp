#include "VXVelvoxAPI.h"

#include <Platform/FileManager.h>
#include <Platform/Number.h>
#include <Platform/RunLoop.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <random>

namespace velvox {

VX_DEFINE_CLASS(VXVelvoxAPI, Object)

std::string VXVelvoxAPI::configurationProblem(std::string_view baseURL, std::string_view accessToken)
{
    auto url = URL::create(baseURL);
    if (!url)
        return "The base URL is not a URL.";
    std::string scheme = url->scheme();
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (scheme != "http" && scheme != "https")
        return "The base URL must start with http:// or https://.";
    if (url->host().empty())
        return "The base URL has no host.";
    for (unsigned char c : accessToken) {
        if (c < 0x20 || c == 0x7F)
            return "The access token holds a control character (a line break, say); it is refused.";
    }
    return {};
}

RefPtr<VXVelvoxAPI> VXVelvoxAPI::create(std::string_view baseURL, std::string_view accessToken, std::string* problem)
{
    auto refusal = configurationProblem(baseURL, accessToken);
    if (!refusal.empty()) {
        if (problem)
            *problem = std::move(refusal);
        return nullptr;
    }
    return adoptRef(new VXVelvoxAPI(std::string(baseURL), std::string(accessToken)));
}

VXVelvoxAPI::~VXVelvoxAPI()
{
    // Requests of a client that is gone end silently.
    m_queue.clear();
    m_refusals.clear();
    m_retries.clear();
    auto tasks = std::move(m_tasks);
    for (auto& [identifier, task] : tasks)
        task->cancel();
}

Ref<VXVelvoxAPI> VXVelvoxAPI::copyWithAPIDelegate(VXVelvoxAPIDelegate* delegate) const
{
    auto copy = adoptRef(*new VXVelvoxAPI(m_baseURL, m_accessToken));
    copy->m_delegate = delegate;
    copy->m_timeout = m_timeout;
    copy->m_maximumAnswerSize = m_maximumAnswerSize;
    copy->m_connectTimeout = m_connectTimeout;
    copy->m_maximumRunningRequests = m_maximumRunningRequests;
    copy->m_retryPolicy = m_retryPolicy;
    copy->m_answerCacheConfiguration = m_answerCacheConfiguration;
    return copy;
}

namespace {

std::string parameterText(Object* value)
{
    if (auto* string = dynamicDowncast<String>(value))
        return string->str();
    return value->description()->str();
}

std::string encodedParameters(Dictionary* parameters)
{
    std::string text;
    if (!parameters)
        return text;
    for (auto& entry : *parameters) {
        if (!text.empty())
            text.push_back('&');
        text += percentEncode(parameterText(entry.key));
        text.push_back('=');
        text += percentEncode(parameterText(entry.object));
    }
    return text;
}

bool isUpload(Object* value)
{
    if (is<Data>(value))
        return true;
    auto* url = dynamicDowncast<URL>(value);
    return url && url->scheme() == "file";
}

// The transfer failures worth another attempt, by libcurl's number: no
// connection (7), a time-out (28), a connection that ended early (18 partial
// body, 52 empty reply, 55 send and 56 receive failure). Not an unknown host
// (6), a TLS failure (35, 60) or an answer over the size limit (63): another
// attempt would fail the same way.
bool isPassingTransferFailure(int64_t code)
{
    static constexpr std::array<int64_t, 6> passing { 7, 18, 28, 52, 55, 56 };
    return std::find(passing.begin(), passing.end(), code) != passing.end();
}

// Seconds since 1970 of an IMF-fixdate ("Sun, 06 Nov 1994 08:49:37 GMT"),
// the form services send; -1 for anything else.
double parseHTTPDate(std::string_view text)
{
    static constexpr std::string_view months[] = { "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec" };
    if (text.size() != 29 || text[3] != ',' || text.substr(25) != " GMT")
        return -1;
    auto number = [&](size_t at, size_t length, int& out) {
        out = 0;
        for (char c : text.substr(at, length)) {
            if (c < '0' || c > '9')
                return false;
            out = out * 10 + (c - '0');
        }
        return true;
    };
    int day, year, hour, minute, second;
    if (!number(5, 2, day) || !number(12, 4, year) || !number(17, 2, hour) || !number(20, 2, minute) || !number(23, 2, second))
        return -1;
    if (text[4] != ' ' || text[7] != ' ' || text[11] != ' ' || text[16] != ' ' || text[19] != ':' || text[22] != ':')
        return -1;
    auto month = std::find(std::begin(months), std::end(months), text.substr(8, 3)) - std::begin(months);
    if (month == 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60)
        return -1;
    // Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's days_from_civil).
    int y = year - (month < 2);
    int era = y / 400;
    int yearOfEra = y - era * 400;
    int shiftedMonth = static_cast<int>(month) + (month < 2 ? 10 : -2);
    int dayOfYear = (153 * shiftedMonth + 2) / 5 + day - 1;
    int dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    double days = era * 146097.0 + dayOfEra - 719468;
    return days * 86400 + hour * 3600 + minute * 60 + second;
}

// The wait a "Retry-After" value asks for, at most `ceiling`; -1 when it is
// neither delta-seconds nor an HTTP date.
double retryAfterSeconds(std::string_view value, double wallNow, double ceiling)
{
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
        value.remove_prefix(1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
        value.remove_suffix(1);
    if (value.empty())
        return -1;
    if (std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        // Digit by digit, stopping at the ceiling: 10^12 or a thousand digits cannot overflow.
        double seconds = 0;
        for (char c : value) {
            seconds = seconds * 10 + (c - '0');
            if (seconds >= ceiling)
                return ceiling;
        }
        return seconds;
    }
    double date = parseHTTPDate(value);
    if (date < 0)
        return -1;
    return std::clamp(date - wallNow, 0.0, ceiling);
}

// A policy's number as a wait: never negative or NaN, never beyond a day.
double saneDelay(double seconds)
{
    static constexpr double longest = 24 * 60 * 60;
    return seconds > 0 ? std::min(seconds, longest) : 0;
}

} // namespace

bool VXVelvoxAPI::isIdempotent(std::string_view method, std::string_view resource)
{
    if (method == "GET")
        return true;
    if (method != "PUT" && method != "DELETE")
        return false;
    // Following a user or favoriting a track twice leaves it followed or favorited once.
    while (!resource.empty() && resource.front() == '/')
        resource.remove_prefix(1);
    for (std::string_view collection : { std::string_view("me/followings/"), std::string_view("me/favorites/") }) {
        if (resource.starts_with(collection)) {
            auto identifier = resource.substr(collection.size());
            return !identifier.empty() && identifier.find_first_of("/?") == std::string_view::npos;
        }
    }
    return false;
}

std::string VXVelvoxAPI::URLForResource(std::string_view resource, Dictionary* queryParameters) const
{
    std::string url = m_baseURL;
    while (!url.empty() && url.back() == '/')
        url.pop_back();
    while (!resource.empty() && resource.front() == '/')
        resource.remove_prefix(1);
    url.push_back('/');
    url.append(resource);
    std::string query = encodedParameters(queryParameters);
    if (!query.empty()) {
        url.push_back(url.find('?') == std::string::npos ? '?' : '&');
        url += query;
    }
    return url;
}

std::string VXVelvoxAPI::resourceProblem(std::string_view resource)
{
    for (unsigned char c : resource) {
        if (c <= 0x20 || c >= 0x7F || c == '#' || c == '\\')
            return "it holds white space, a control or non-ASCII byte, \"#\" or \"\\\"";
    }
    std::string_view path = resource.substr(0, resource.find('?'));
    // Leading slashes are dropped when the path is joined to the base URL.
    while (!path.empty() && path.front() == '/')
        path.remove_prefix(1);
    while (true) {
        auto slash = path.find('/');
        auto segment = path.substr(0, slash);
        auto decoded = percentDecode(segment);
        if (decoded.empty())
            return "it holds an empty segment";
        if (decoded == "." || decoded == "..")
            return "it holds a \".\" or \"..\" segment";
        if (slash == std::string_view::npos)
            break;
        path.remove_prefix(slash + 1);
    }
    return {};
}

Ref<String> VXVelvoxAPI::pathSegment(Object* identifier)
{
    if (!identifier)
        return String::create("(null)");
    auto* string = dynamicDowncast<String>(identifier);
    Ref<String> text = string ? Ref<String>(*string) : identifier->description();
    for (unsigned char c : text->view()) {
        bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.' || c == '~';
        if (!unreserved)
            return String::create(percentEncode(text->view()));
    }
    return text;
}

void VXVelvoxAPI::refuse(std::string problem, Object* context, Dictionary* userInfo)
{
    uint64_t identifier = ++m_nextTask;
    if (userInfo)
        m_requestForUserInfo[userInfo] = identifier;
    auto info = Dictionary::create({ { LocalizedDescriptionKey, String::create("The request was not sent: its resource path is not a path of the service (" + problem + ").").ptr() } });
    auto error = Error::create(VXVelvoxAPIErrorDomain, VXVelvoxAPIErrorInvalidResource, info.ptr());
    RefPtr<Object> protectedContext = context;
    RefPtr<Dictionary> protectedUserInfo = userInfo;
    // The client stops the timer when it goes, so the timer may use it bare.
    m_refusals.emplace(identifier, RunLoop::current().performAfterDelay(0, [this, identifier, error, protectedContext, protectedUserInfo] {
        Ref protectedThis { *this };
        auto finished = m_refusals.extract(identifier);
        forgetUserInfo(protectedUserInfo.get(), identifier);
        if (m_delegate)
            m_delegate->velvoxAPIDidFailWithError(*this, error.ptr(), protectedContext.get(), protectedUserInfo.get());
    }));
}

void VXVelvoxAPI::performMethod(const String& method, const String& resource, Dictionary* parameters, Object* context, Dictionary* userInfo)
{
    if (auto problem = resourceProblem(resource.view()); !problem.empty()) {
        refuse(std::move(problem), context, userInfo);
        return;
    }
    uint64_t identifier = ++m_nextTask;
    if (userInfo)
        m_requestForUserInfo[userInfo] = identifier;
    // A waiting request keeps what it was made with and becomes an HTTP
    // request only when its turn comes: waiting, or cancelled while waiting,
    // costs little. The parameters are copied, as a caller may change its own.
    QueuedRequest queued { identifier, method.str(), Ref<String>(const_cast<String&>(resource)), parameters ? RefPtr<Dictionary>(parameters->copy()) : nullptr, context, userInfo, m_retryPolicy, 0, 0, {}, nullptr };
    // An upload is never sent twice, whatever its path.
    bool upload = false;
    if (parameters) {
        for (auto& entry : *parameters)
            upload |= isUpload(entry.object);
    }
    if (!upload && isIdempotent(queued.method, resource.view()))
        queued.retriesLeft = m_retryPolicy.maximumRetries;
    startOrQueue(std::move(queued));
}

void VXVelvoxAPI::startOrQueue(QueuedRequest&& queued)
{
    if (m_maximumRunningRequests && m_tasks.size() >= m_maximumRunningRequests) {
        uint64_t identifier = queued.identifier;
        m_queue.emplace(identifier, std::move(queued));
        return;
    }
    start(std::move(queued));
}

URLRequest VXVelvoxAPI::requestFor(const std::string& method, const String& resource, Dictionary* parameters) const
{
    URLRequest request;
    request.method = method;
    request.timeout = m_timeout;
    request.connectTimeout = m_connectTimeout;
    request.maximumBodySize = m_maximumAnswerSize;
    request.headers = { { "Authorization", "OAuth " + m_accessToken }, { "Accept", "application/json" }, { "User-Agent", "VelvoxKit/0.1" } };
    bool inQuery = request.method == "GET" || request.method == "DELETE" || request.method == "HEAD";
    request.url = URLForResource(resource.view(), inQuery ? parameters : nullptr);
    if (!inQuery && parameters) {
        bool multipart = false;
        for (auto& entry : *parameters)
            multipart |= isUpload(entry.object);
        if (multipart) {
            for (auto& entry : *parameters) {
                URLFormPart part;
                part.name = parameterText(entry.key);
                if (auto* data = dynamicDowncast<Data>(entry.object))
                    part.data = data;
                else if (isUpload(entry.object)) {
                    part.filePath = percentDecode(downcast<URL>(entry.object)->path());
                    part.fileName = lastPathComponent(part.filePath);
                } else
                    part.text = parameterText(entry.object);
                request.formParts.push_back(std::move(part));
            }
        } else {
            request.body = encodedParameters(parameters);
            request.headers.emplace_back("Content-Type", "application/x-www-form-urlencoded");
        }
    }

    return request;
}

URLTaskCallbacks VXVelvoxAPI::callbacksFor(std::shared_ptr<QueuedRequest> request)
{
    URLTaskCallbacks callbacks;
    // The progress of an attempt that may be followed by another is not told:
    // the delegate would hear the same bytes twice. When such an attempt ends
    // the request, its answer is told as one piece before the outcome.
    bool live = !request->retriesLeft;
    bool wantsPieces = !m_delegate || m_delegate->velvoxAPIWantsReceivedData();
    if (live) {
        callbacks.didSendBytes = [this, request](uint64_t sent, uint64_t total) {
            Ref protectedThis { *this };
            if (m_delegate)
                m_delegate->velvoxAPIDidSendBytes(*this, sent, total, request->context.get(), request->userInfo.get());
        };
    }
    if (live && wantsPieces) {
        callbacks.didReceiveBytes = [this, request](uint64_t received, uint64_t total) {
            Ref protectedThis { *this };
            if (m_delegate)
                m_delegate->velvoxAPIDidReceiveBytes(*this, received, total, request->context.get(), request->userInfo.get());
        };
        callbacks.didReceiveData = [this, request](Data& chunk) {
            Ref protectedThis { *this };
            if (m_delegate)
                m_delegate->velvoxAPIDidReceiveData(*this, &chunk, request->context.get(), request->userInfo.get());
        };
    }
    callbacks.didComplete = [this, request, live, wantsPieces](URLResponse* response, Error* error) {
        Ref protectedThis { *this }; // the delegate may release the last reference to us
        uint64_t identifier = request->identifier;
        m_tasks.erase(identifier);
        if (double delay = retryDelay(*request, response, error); delay >= 0) {
            retryLater(request, delay);
            startQueuedRequests();
            return;
        }
        forgetUserInfo(request->userInfo.get(), identifier);
        startQueuedRequests();
        if (!m_delegate)
            return;
        // What the answer was, for whoever hears of it (a log, the store).
        struct Delivering {
            VXVelvoxAPI& api;
            ~Delivering()
            {
                api.m_deliveringMaximumAge = -1;
                api.m_delivering = {};
            }
        } delivering { *this };
        m_delivering.retries = request->retries;
        Object* context = request->context.get();
        Dictionary* userInfo = request->userInfo.get();
        if (!live && wantsPieces && response && response->body().length()) {
            uint64_t length = response->body().length();
            m_delegate->velvoxAPIDidReceiveBytes(*this, length, length, context, userInfo);
            if (m_delegate)
                m_delegate->velvoxAPIDidReceiveData(*this, &response->body(), context, userInfo);
            if (!m_delegate)
                return;
        }
        if (error) {
            m_delegate->velvoxAPIDidFailWithError(*this, error, context, userInfo);
            return;
        }
        m_deliveringMaximumAge = maximumAgeInCacheControl(response->headerValue("cache-control"));
        m_delivering.status = response->statusCode();
        // Not modified: what was kept is the answer. A 304 to a request that
        // asked nothing conditionally is a failure like any other 3xx.
        if (response->statusCode() == 304 && request->keptBody) {
            ++m_notModifiedCount;
            m_delivering.notModified = true;
            Ref body = *request->keptBody;
            request->keptBody = nullptr;
            // As if it had just come: in one piece, then whole.
            if (wantsPieces && body->length()) {
                m_delegate->velvoxAPIDidReceiveBytes(*this, body->length(), body->length(), context, userInfo);
                if (m_delegate)
                    m_delegate->velvoxAPIDidReceiveData(*this, body.ptr(), context, userInfo);
                if (!m_delegate)
                    return;
            }
            m_delegate->velvoxAPIDidFinishWithData(*this, body.ptr(), context, userInfo);
            return;
        }
        keepAnswer(*request, *response);
        // Redirects are not followed, so a 3xx is no more an answer than a 4xx.
        if (response->statusCode() < 200 || response->statusCode() > 299) {
            auto info = Dictionary::create({
                { LocalizedDescriptionKey, String::format("The service answered with HTTP status %ld.", response->statusCode()).ptr() },
                { VXVelvoxAPIResponseBodyKey, &response->body() },
                { VXVelvoxAPIResponseStatusKey, Number::withInteger(response->statusCode()).ptr() },
            });
            auto failure = Error::create(VXVelvoxAPIErrorDomain, response->statusCode(), info.ptr());
            m_delegate->velvoxAPIDidFailWithError(*this, failure.ptr(), context, userInfo);
            return;
        }
        m_delegate->velvoxAPIDidFinishWithData(*this, &response->body(), context, userInfo);
    };
    return callbacks;
}

bool VXVelvoxAPI::isUnreachable(const Error* error)
{
    // 6: the host's name did not resolve.
    return error && error->domain()->isEqualToString(URLErrorDomain) && (error->code() == 6 || isPassingTransferFailure(error->code()));
}

bool VXVelvoxAPI::mayHaveReachedTheService(const Error* error)
{
    return isUnreachable(error) && error->code() != 6 && error->code() != 7;
}

double VXVelvoxAPI::retryDelay(const QueuedRequest& request, URLResponse* response, Error* error)
{
    if (!request.retriesLeft)
        return -1;
    const auto& policy = request.policy;
    if (error) {
        if (!error->domain()->isEqualToString(URLErrorDomain) || !isPassingTransferFailure(error->code()))
            return -1;
    } else {
        long status = response->statusCode();
        if (status != 429 && (status < 500 || status > 599))
            return -1;
        if (auto* value = response->headers().objectForKey<String>("retry-after")) {
            double asked = retryAfterSeconds(value->view(), RunLoop::current().clock().wallTime(), saneDelay(policy.maximumRetryAfter));
            if (asked >= 0)
                return asked;
        }
    }
    int doublings = static_cast<int>(std::min(request.retries, 64u));
    double delay = std::min(saneDelay(std::ldexp(saneDelay(policy.initialDelay), doublings)), saneDelay(policy.maximumDelay));
    if (!(delay > 0))
        return 0;
    thread_local std::minstd_rand random { std::random_device {}() };
    return delay / 2 + std::uniform_real_distribution<double>(0, delay / 2)(random);
}

void VXVelvoxAPI::retryLater(std::shared_ptr<QueuedRequest> request, double delay)
{
    --request->retriesLeft;
    ++request->retries;
    uint64_t identifier = request->identifier;
    // The client stops the timer when it goes, so the timer may use it bare.
    m_retries.emplace(identifier, RunLoop::current().performAfterDelay(delay, [this, request] {
        Ref protectedThis { *this };
        auto waited = m_retries.extract(request->identifier);
        startOrQueue(std::move(*request));
    }));
}

void VXVelvoxAPI::forgetUserInfo(const Dictionary* userInfo, uint64_t identifier)
{
    if (auto found = m_requestForUserInfo.find(userInfo); found != m_requestForUserInfo.end() && found->second == identifier)
        m_requestForUserInfo.erase(found);
}

void VXVelvoxAPI::cancelMethodWithUserInfo(Dictionary* userInfo)
{
    auto found = m_requestForUserInfo.find(userInfo);
    if (found == m_requestForUserInfo.end())
        return;
    uint64_t identifier = found->second;
    m_requestForUserInfo.erase(found);
    if (auto running = m_tasks.find(identifier); running != m_tasks.end()) {
        auto task = std::move(running->second);
        m_tasks.erase(running);
        task->cancel();
        startQueuedRequests();
        return;
    }
    if (m_queue.erase(identifier) || m_retries.erase(identifier))
        return;
    m_refusals.erase(identifier);
}

std::string VXVelvoxAPI::AnswerCache::defaultPath()
{
    return stringByAppendingPathComponent(stringByAppendingPathComponent(userCacheDirectory(), "Velvox"), "Answers");
}

void VXVelvoxAPI::setAnswerCache(const AnswerCache& configuration)
{
    m_answerCacheConfiguration = configuration;
    m_answers = nullptr;
}

namespace {

bool isUsableValidator(std::string_view value)
{
    if (value.empty() || value.size() > VXVelvoxAPI::AnswerCache::maximumValidatorLength)
        return false;
    for (unsigned char c : value) {
        if (c < 0x20 || c == 0x7F)
            return false;
    }
    return true;
}

} // namespace

double VXVelvoxAPI::maximumAgeInCacheControl(std::string_view value)
{
    constexpr double tenYears = 10 * 365.25 * 86400;
    double found = -1;
    while (!value.empty()) {
        auto comma = value.find(',');
        auto directive = value.substr(0, comma);
        value = comma == std::string_view::npos ? std::string_view() : value.substr(comma + 1);
        while (!directive.empty() && (directive.front() == ' ' || directive.front() == '\t'))
            directive.remove_prefix(1);
        while (!directive.empty() && (directive.back() == ' ' || directive.back() == '\t'))
            directive.remove_suffix(1);
        std::string name(directive.substr(0, directive.find('=')));
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (name == "no-store" || name == "no-cache")
            return 0;
        if (name != "max-age" || directive.find('=') == std::string_view::npos)
            continue;
        auto number = directive.substr(directive.find('=') + 1);
        if (number.size() >= 2 && number.front() == '"' && number.back() == '"')
            number = number.substr(1, number.size() - 2);
        if (number.empty())
            continue;
        // Digit by digit, stopping at the cap: no length of digits overflows.
        double seconds = 0;
        bool digits = true;
        for (char c : number) {
            if (c < '0' || c > '9') {
                digits = false;
                break;
            }
            seconds = std::min(seconds * 10 + (c - '0'), tenYears);
        }
        if (digits)
            found = seconds;
    }
    return found;
}

ValidatedDiskCache* VXVelvoxAPI::answers()
{
    if (!m_answerCacheConfiguration.enabled)
        return nullptr;
    if (!m_answers) {
        std::string path = m_answerCacheConfiguration.path.empty() ? AnswerCache::defaultPath() : m_answerCacheConfiguration.path;
        // One index per folder and thread: the clients of a thread share it.
        thread_local std::map<std::string, std::weak_ptr<ValidatedDiskCache>> shared;
        if (auto existing = shared[path].lock(); existing && existing->capacity() == m_answerCacheConfiguration.capacity) {
            existing->setMemoryCapacity(m_answerCacheConfiguration.memoryCapacity);
            m_answers = existing;
        } else {
            m_answers = answerFiles(m_answerCacheConfiguration, m_maximumAnswerSize);
            shared[path] = m_answers;
        }
    }
    return m_answers.get();
}

std::shared_ptr<ValidatedDiskCache> VXVelvoxAPI::answerFiles(const AnswerCache& configuration, size_t maximumAnswerSize)
{
    std::string path = configuration.path.empty() ? AnswerCache::defaultPath() : configuration.path;
    auto files = std::make_shared<ValidatedDiskCache>(ValidatedDiskCache::Format { "VXANS1\n", ".answer", nullptr }, path, configuration.capacity, maximumAnswerSize, true);
    files->setMemoryCapacity(configuration.memoryCapacity);
    return files;
}

std::pair<size_t, size_t> VXVelvoxAPI::keptAnswers(const AnswerCache& configuration)
{
    auto files = answerFiles(configuration, URLRequest::defaultMaximumBodySize);
    return { files->count(), files->bytes() };
}

size_t VXVelvoxAPI::keptAnswerBytes()
{
    auto* cache = answers();
    return cache ? cache->bytes() : 0;
}

size_t VXVelvoxAPI::keptAnswerCount()
{
    auto* cache = answers();
    return cache ? cache->count() : 0;
}

const std::string& VXVelvoxAPI::accountDigest() const
{
    // The token never changes: made once.
    if (m_accountDigest.empty()) {
        char digits[17];
        snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(ValidatedDiskCache::digest(m_accessToken)));
        m_accountDigest = digits;
    }
    return m_accountDigest;
}

void VXVelvoxAPI::addValidators(QueuedRequest& request, URLRequest& urlRequest)
{
    request.keptBody = nullptr;
    if (request.method != "GET")
        return;
    auto* cache = answers();
    if (!cache)
        return;
    if (request.answerKey.empty()) {
        request.answerKey = accountDigest() + " " + urlRequest.url;
    }
    auto kept = cache->read(request.answerKey);
    if (!kept)
        return;
    bool asked = false;
    if (isUsableValidator(kept->etag)) {
        urlRequest.headers.emplace_back("If-None-Match", kept->etag);
        asked = true;
    }
    if (isUsableValidator(kept->lastModified)) {
        urlRequest.headers.emplace_back("If-Modified-Since", kept->lastModified);
        asked = true;
    }
    if (asked) {
        request.keptBody = kept->body.ptr();
        ++m_conditionalRequestCount;
    }
}

void VXVelvoxAPI::keepAnswer(const QueuedRequest& request, URLResponse& response)
{
    auto* cache = answers();
    if (!cache || request.answerKey.empty())
        return;
    if (response.statusCode() != 200) {
        // What was kept no longer is the resource's answer.
        if (response.statusCode() == 404 || response.statusCode() == 410)
            cache->remove(request.answerKey);
        return;
    }
    std::string control = response.headerValue("cache-control");
    std::transform(control.begin(), control.end(), control.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    std::string etag = response.headerValue("etag");
    std::string lastModified = response.headerValue("last-modified");
    bool validated = isUsableValidator(etag) || isUsableValidator(lastModified);
    if (control.find("no-store") != std::string::npos || !validated || response.body().length() > m_answerCacheConfiguration.capacity / 4) {
        cache->remove(request.answerKey);
        return;
    }
    cache->write(request.answerKey, response.body(), isUsableValidator(etag) ? etag : std::string(), isUsableValidator(lastModified) ? lastModified : std::string());
}

void VXVelvoxAPI::start(QueuedRequest&& queued)
{
    // Shared with the task's callbacks, which may send it again.
    auto request = std::make_shared<QueuedRequest>(std::move(queued));
    uint64_t identifier = request->identifier;
    auto urlRequest = requestFor(request->method, request->resource, request->parameters.get());
    addValidators(*request, urlRequest);
    auto task = URLLoader::current().start(urlRequest, callbacksFor(request));
    if (!task->isFinished())
        m_tasks.emplace(identifier, std::move(task));
}

void VXVelvoxAPI::startQueuedRequests()
{
    // A request that fails at once completes inside start(); the loop, not
    // recursion, then goes on with the next.
    if (m_startingQueued)
        return;
    m_startingQueued = true;
    struct Reset {
        bool& flag;
        ~Reset() { flag = false; }
    } reset { m_startingQueued };
    while (!m_queue.empty() && (!m_maximumRunningRequests || m_tasks.size() < m_maximumRunningRequests)) {
        auto next = std::move(m_queue.extract(m_queue.begin()).mapped());
        start(std::move(next));
    }
}

} // namespace velvox
