#include "ObservedAPI.h"

#include "Session.h"

#include <Service/VXForwardingDelegate.h>

#include <chrono>
#include <cstdio>
#include <unordered_map>

namespace velvox::app {

// Passes every call on to the controller, drawing and telling on the way.
class ObservedAPI::Tap final : public VXForwardingDelegate {
public:
    Tap(VXVelvoxAPIDelegate* controller, Feedback feedback)
        : VXForwardingDelegate(controller)
        , m_feedback(feedback)
    {
    }
    ~Tap() override { endBar(); }

    void started(const VXVelvoxAPI& api, const String& method, const String& resource, Dictionary* parameters, Dictionary* userInfo)
    {
        if (!m_feedback.requestLog || !userInfo)
            return;
        std::string target = method.view() == "GET" || method.view() == "DELETE" ? api.URLForResource(resource.view(), parameters)
                                                                                 : api.URLForResource(resource.view(), nullptr);
        if (target.starts_with(api.baseURL()))
            target.erase(0, api.baseURL().size());
        if (target.empty() || target[0] != '/')
            target.insert(target.begin(), '/');
        m_requests[userInfo] = { method.str() + " " + redactedQuery(target), std::chrono::steady_clock::now() };
    }

    void velvoxAPIDidFinishWithData(VXVelvoxAPI& api, Data* data, Object* context, Dictionary* userInfo) override
    {
        auto& delivery = api.deliveryBeingMade();
        ended(userInfo, delivery.notModified ? "304, the kept answer" : delivery.status ? std::to_string(delivery.status) : "2xx", delivery.retries);
        m_controller->velvoxAPIDidFinishWithData(api, data, context, userInfo);
    }
    void velvoxAPIDidFailWithError(VXVelvoxAPI& api, Error* error, Object* context, Dictionary* userInfo) override
    {
        bool http = error && error->domain()->isEqualToString(VXVelvoxAPIErrorDomain) && error->code() >= 100;
        ended(userInfo, http ? std::to_string(error->code()) : "failed: " + (error ? printable(error->localizedDescription()->str()) : std::string()),
            api.deliveryBeingMade().retries);
        m_controller->velvoxAPIDidFailWithError(api, error, context, userInfo);
    }
    void velvoxAPIDidSendBytes(VXVelvoxAPI& api, uint64_t bytes, uint64_t total, Object* context, Dictionary* userInfo) override
    {
        if (m_feedback.progressBar && total && bytes <= total) {
            int percent = static_cast<int>(bytes * 100 / total);
            int filled = percent / 4;
            fprintf(stderr, "\rUploading [%.*s%*s] %3d%%  %s of %s\033[K", filled, "#########################", 25 - filled, "", percent,
                byteSize(bytes).c_str(), byteSize(total).c_str());
            m_drawn = true;
        }
        m_controller->velvoxAPIDidSendBytes(api, bytes, total, context, userInfo);
    }

private:
    struct Request {
        std::string line;
        std::chrono::steady_clock::time_point start;
    };
    void ended(Dictionary* userInfo, std::string status, unsigned retries)
    {
        if (retries)
            status += ", after " + std::to_string(retries) + (retries == 1 ? " retry" : " retries");
        endBar();
        auto found = m_requests.find(userInfo);
        if (found == m_requests.end())
            return;
        double milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - found->second.start).count();
        fprintf(stderr, "* %s -> %s (%.1f ms)\n", found->second.line.c_str(), status.c_str(), milliseconds);
        m_requests.erase(found);
    }
    void endBar()
    {
        if (m_drawn)
            fputc('\n', stderr);
        m_drawn = false;
    }

    Feedback m_feedback;
    bool m_drawn { false };
    std::unordered_map<const Dictionary*, Request> m_requests;
};

ObservedAPI::ObservedAPI(std::string baseURL, std::string accessToken, Feedback feedback)
    : VXVelvoxAPI(std::move(baseURL), std::move(accessToken))
    , m_feedback(feedback)
{
}

ObservedAPI::~ObservedAPI() = default;

RefPtr<ObservedAPI> ObservedAPI::create(std::string_view baseURL, std::string_view accessToken, Feedback feedback, std::string* problem)
{
    if (auto refused = configurationProblem(baseURL, accessToken); !refused.empty()) {
        if (problem)
            *problem = refused;
        return nullptr;
    }
    return adoptRef(*new ObservedAPI(std::string(baseURL), std::string(accessToken), feedback));
}

Ref<VXVelvoxAPI> ObservedAPI::copyWithAPIDelegate(VXVelvoxAPIDelegate* delegate) const
{
    // The configuration VXVelvoxAPI's own copy takes over.
    auto copy = adoptRef(*new ObservedAPI(baseURL(), accessToken(), m_feedback));
    copy->m_tap = std::make_unique<Tap>(delegate, m_feedback);
    copy->setDelegate(copy->m_tap.get());
    copyClientConfiguration(*this, *copy.ptr());
    return copy;
}

void ObservedAPI::performMethod(const String& method, const String& resource, Dictionary* parameters, Object* context, Dictionary* userInfo)
{
    if (m_tap)
        m_tap->started(*this, method, resource, parameters, userInfo);
    VXVelvoxAPI::performMethod(method, resource, parameters, context, userInfo);
}

std::string redactedQuery(std::string_view target)
{
    size_t question = target.find('?');
    if (question == std::string_view::npos)
        return std::string(target);
    std::string out(target.substr(0, question + 1));
    std::string_view query = target.substr(question + 1);
    for (size_t start = 0; start <= query.size();) {
        size_t end = query.find('&', start);
        if (end == std::string_view::npos)
            end = query.size();
        std::string_view pair = query.substr(start, end - start);
        size_t equals = pair.find('=');
        std::string key(pair.substr(0, equals));
        for (auto& c : key)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        bool secret = key.find("token") != std::string::npos || key.find("secret") != std::string::npos || key.find("password") != std::string::npos;
        out += secret && equals != std::string_view::npos ? std::string(pair.substr(0, equals)) + "=[redacted]" : std::string(pair);
        if (end < query.size())
            out += '&';
        start = end + 1;
    }
    return out;
}

} // namespace velvox::app
