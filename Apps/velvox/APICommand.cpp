#include "Commands.h"

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>
#include <SandboxService.h>
#include <VelvoxKit/VXAPIController.h>

#include <cstdio>
#include <filesystem>
#include <unistd.h>

namespace velvox::app {

namespace {

// Draws upload progress on standard error from the client's byte counts,
// and passes every call on to the controller.
class ProgressTap final : public VXVelvoxAPIDelegate {
public:
    explicit ProgressTap(VXVelvoxAPIDelegate* controller)
        : m_controller(controller)
    {
    }
    void velvoxAPIDidFinishWithData(VXVelvoxAPI& api, Data* data, Object* context, Dictionary* userInfo) override
    {
        endBar();
        m_controller->velvoxAPIDidFinishWithData(api, data, context, userInfo);
    }
    void velvoxAPIDidFailWithError(VXVelvoxAPI& api, Error* error, Object* context, Dictionary* userInfo) override
    {
        endBar();
        m_controller->velvoxAPIDidFailWithError(api, error, context, userInfo);
    }
    void velvoxAPIDidReceiveData(VXVelvoxAPI& api, Data* data, Object* context, Dictionary* userInfo) override
    {
        m_controller->velvoxAPIDidReceiveData(api, data, context, userInfo);
    }
    void velvoxAPIDidReceiveBytes(VXVelvoxAPI& api, uint64_t bytes, uint64_t total, Object* context, Dictionary* userInfo) override
    {
        m_controller->velvoxAPIDidReceiveBytes(api, bytes, total, context, userInfo);
    }
    void velvoxAPIDidSendBytes(VXVelvoxAPI& api, uint64_t bytes, uint64_t total, Object* context, Dictionary* userInfo) override
    {
        if (m_showBar && total) {
            int percent = static_cast<int>(bytes * 100 / total);
            int filled = percent / 4;
            fprintf(stderr, "\rUploading [%.*s%*s] %3d%%  %.1f of %.1f MB", filled, "#########################", 25 - filled, "", percent,
                static_cast<double>(bytes) / 1e6, static_cast<double>(total) / 1e6);
            m_drawn = true;
        }
        m_controller->velvoxAPIDidSendBytes(api, bytes, total, context, userInfo);
    }
    void setShowBar(bool show) { m_showBar = show; }

private:
    void endBar()
    {
        if (m_drawn)
            fputc('\n', stderr);
        m_drawn = false;
    }
    VXVelvoxAPIDelegate* m_controller;
    bool m_showBar { false };
    bool m_drawn { false };
};

class TappedAPI final : public VXVelvoxAPI {
public:
    static Ref<TappedAPI> create(std::string baseURL, std::string token) { return adoptRef(*new TappedAPI(std::move(baseURL), std::move(token))); }
    Ref<VXVelvoxAPI> copyWithAPIDelegate(VXVelvoxAPIDelegate* delegate) const override
    {
        m_tap = std::make_unique<ProgressTap>(delegate);
        m_tap->setShowBar(m_showBar);
        return VXVelvoxAPI::copyWithAPIDelegate(m_tap.get());
    }
    void setShowBar(bool show) { m_showBar = show; }

private:
    TappedAPI(std::string baseURL, std::string token)
        : VXVelvoxAPI(std::move(baseURL), std::move(token))
    {
    }
    mutable std::unique_ptr<ProgressTap> m_tap;
    bool m_showBar { false };
};

} // namespace

int runAPI(const APIOptions& options)
{
    std::unique_ptr<sandbox::SandboxService> sandbox;
    std::string baseURL = options.baseURL;
    std::string token = options.token;
    if (baseURL.empty()) {
        sandbox::SandboxService::Options sandboxOptions;
        sandbox = std::make_unique<sandbox::SandboxService>(sandboxOptions);
        std::string error;
        if (!sandbox->start(&error)) {
            fprintf(stderr, "velvox api: cannot start the sandbox: %s\n", error.c_str());
            return 1;
        }
        baseURL = sandbox->baseURL();
        if (token.empty())
            token = sandbox->token();
    }
    if (!URL::create(baseURL)) {
        fprintf(stderr, "velvox api: not a URL: %s\n", baseURL.c_str());
        return 1;
    }

    auto parameters = MutableDictionary::create();
    bool uploads = false;
    for (auto& pair : options.parameters) {
        size_t equals = pair.find('=');
        if (equals == std::string::npos || !equals) {
            fprintf(stderr, "velvox api: a parameter is KEY=VALUE or KEY=@FILE, not %s\n", pair.c_str());
            return 1;
        }
        std::string key = pair.substr(0, equals);
        std::string value = pair.substr(equals + 1);
        if (value.starts_with("@")) {
            std::error_code code;
            auto path = std::filesystem::absolute(value.substr(1), code).string();
            if (code || !FileManager::defaultManager().fileExistsAtPath(path)) {
                fprintf(stderr, "velvox api: no such file: %s\n", value.substr(1).c_str());
                return 1;
            }
            parameters->setObject(URL::create("file://" + percentEncodePath(path)).get(), key);
            uploads = true;
        } else
            parameters->setObject(String::create(value), key);
    }

    auto client = TappedAPI::create(baseURL, token);
    client->setShowBar(uploads);
    auto controller = VXAPIController::create(client.ptr());
    bool done = false;
    int status = 0;
    auto userInfo = Dictionary::create({ { VXAPICallbackBlockKey,
        VXAPICallbackBlockObject::create([&](VXAPIController*, Object* json, Error* error) {
            done = true;
            if (error) {
                std::string body;
                if (auto* data = error->userInfo()->objectForKey<Data>(VXVelvoxAPIResponseBodyKey))
                    body = std::string(data->view());
                fprintf(stderr, "velvox api: %s %lld: %s\n", error->domain()->utf8(), static_cast<long long>(error->code()),
                    error->localizedDescription()->utf8());
                if (!body.empty())
                    fprintf(stderr, "%s\n", body.c_str());
                status = 1;
                return;
            }
            if (!json) {
                fprintf(stderr, "velvox api: the answer is not JSON\n");
                status = 1;
                return;
            }
            auto text = jc_encode(json, JCSerializeOptionPretty, JCEncodeAsData, nullptr);
            auto* data = downcast<Data>(text.get());
            fwrite(data->bytes(), 1, data->length(), stdout);
            fputc('\n', stdout);
        }).get() } });
    std::string method = options.method;
    std::transform(method.begin(), method.end(), method.begin(), [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    controller->performMethod(*String::create(method), *String::create(options.path), parameters->count() ? parameters.ptr() : nullptr, nullptr, userInfo.ptr());
    // The client's own time-out bounds the wait; the loop also ends on Ctrl-C.
    RunLoop::current().runUntil([&] { return done; }, client->timeout() + 5);
    if (!done) {
        fprintf(stderr, "velvox api: no answer\n");
        return 1;
    }
    return status;
}

std::string percentEncodePath(const std::string& path)
{
    std::string out;
    for (size_t start = 0; start <= path.size();) {
        size_t slash = path.find('/', start);
        if (slash == std::string::npos)
            slash = path.size();
        out += percentEncode(std::string_view(path).substr(start, slash - start));
        if (slash < path.size())
            out.push_back('/');
        start = slash + 1;
    }
    return out;
}

} // namespace velvox::app
