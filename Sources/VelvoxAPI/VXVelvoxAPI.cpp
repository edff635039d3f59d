#include "VXVelvoxAPI.h"

#include <Platform/FileManager.h>
#include <Platform/Number.h>
#include <Platform/RunLoop.h>

#include <algorithm>
#include <cctype>

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

} // namespace

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
    QueuedRequest queued { identifier, method.str(), Ref<String>(const_cast<String&>(resource)), parameters ? RefPtr<Dictionary>(parameters->copy()) : nullptr, context, userInfo };
    if (m_maximumRunningRequests && m_tasks.size() >= m_maximumRunningRequests) {
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

URLTaskCallbacks VXVelvoxAPI::callbacksFor(uint64_t identifier, Object* context, Dictionary* userInfo)
{
    RefPtr<Object> protectedContext = context;
    RefPtr<Dictionary> protectedUserInfo = userInfo;
    URLTaskCallbacks callbacks;
    callbacks.didSendBytes = [this, protectedContext, protectedUserInfo](uint64_t sent, uint64_t total) {
        Ref protectedThis { *this };
        if (m_delegate)
            m_delegate->velvoxAPIDidSendBytes(*this, sent, total, protectedContext.get(), protectedUserInfo.get());
    };
    if (!m_delegate || m_delegate->velvoxAPIWantsReceivedData()) {
        callbacks.didReceiveBytes = [this, protectedContext, protectedUserInfo](uint64_t received, uint64_t total) {
            Ref protectedThis { *this };
            if (m_delegate)
                m_delegate->velvoxAPIDidReceiveBytes(*this, received, total, protectedContext.get(), protectedUserInfo.get());
        };
        callbacks.didReceiveData = [this, protectedContext, protectedUserInfo](Data& chunk) {
            Ref protectedThis { *this };
            if (m_delegate)
                m_delegate->velvoxAPIDidReceiveData(*this, &chunk, protectedContext.get(), protectedUserInfo.get());
        };
    }
    callbacks.didComplete = [this, identifier, protectedContext, protectedUserInfo](URLResponse* response, Error* error) {
        Ref protectedThis { *this }; // the delegate may release the last reference to us
        m_tasks.erase(identifier);
        forgetUserInfo(protectedUserInfo.get(), identifier);
        startQueuedRequests();
        if (!m_delegate)
            return;
        if (error) {
            m_delegate->velvoxAPIDidFailWithError(*this, error, protectedContext.get(), protectedUserInfo.get());
            return;
        }
        // Redirects are not followed, so a 3xx is no more an answer than a 4xx.
        if (response->statusCode() < 200 || response->statusCode() > 299) {
            auto info = Dictionary::create({
                { LocalizedDescriptionKey, String::format("The service answered with HTTP status %ld.", response->statusCode()).ptr() },
                { VXVelvoxAPIResponseBodyKey, &response->body() },
                { VXVelvoxAPIResponseStatusKey, Number::withInteger(response->statusCode()).ptr() },
            });
            auto failure = Error::create(VXVelvoxAPIErrorDomain, response->statusCode(), info.ptr());
            m_delegate->velvoxAPIDidFailWithError(*this, failure.ptr(), protectedContext.get(), protectedUserInfo.get());
            return;
        }
        m_delegate->velvoxAPIDidFinishWithData(*this, &response->body(), protectedContext.get(), protectedUserInfo.get());
    };
    return callbacks;
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
    if (m_queue.erase(identifier))
        return;
    m_refusals.erase(identifier);
}

void VXVelvoxAPI::start(QueuedRequest&& queued)
{
    auto request = requestFor(queued.method, queued.resource, queued.parameters.get());
    auto task = URLLoader::current().start(request, callbacksFor(queued.identifier, queued.context.get(), queued.userInfo.get()));
    if (!task->isFinished())
        m_tasks.emplace(queued.identifier, std::move(task));
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
