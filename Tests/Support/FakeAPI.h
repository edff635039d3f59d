#pragma once

// A stand-in for the service's client, for unit tests of the layers above it:
// it records what is sent and lets the test answer each request.

#include <Platform/Platform.h>
#include <VelvoxAPI/VXVelvoxAPI.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace velvox::test {

struct SentRequest {
    std::string method;
    std::string resource;
    RefPtr<Dictionary> parameters;
    RefPtr<Object> context;
    RefPtr<Dictionary> userInfo;
};

// Records what the controller sends and lets the test answer.
class FakeAPI final : public VXVelvoxAPI {
public:
    static Ref<FakeAPI> create(std::shared_ptr<std::vector<SentRequest>> log = std::make_shared<std::vector<SentRequest>>())
    {
        return adoptRef(*new FakeAPI(std::move(log)));
    }
    Ref<VXVelvoxAPI> copyWithAPIDelegate(VXVelvoxAPIDelegate* delegate) const override
    {
        auto copy = create(m_log);
        copy->setDelegate(delegate);
        return copy;
    }
    void performMethod(const String& method, const String& resource, Dictionary* parameters, Object* context, Dictionary* userInfo) override
    {
        m_log->push_back({ method.str(), resource.str(), parameters, context, userInfo });
    }
    std::vector<SentRequest>& log() { return *m_log; }

    void finish(size_t request, std::string_view body)
    {
        auto& sent = log().at(request);
        delegate()->velvoxAPIDidFinishWithData(*this, Data::create(body).ptr(), sent.context.get(), sent.userInfo.get());
    }
    void fail(size_t request, int64_t code, std::string_view domain = "VXTestDomain")
    {
        auto& sent = log().at(request);
        delegate()->velvoxAPIDidFailWithError(*this, Error::create(domain, code).ptr(), sent.context.get(), sent.userInfo.get());
    }
    void sendBytes(size_t request, uint64_t sent, uint64_t total)
    {
        auto& entry = log().at(request);
        delegate()->velvoxAPIDidSendBytes(*this, sent, total, entry.context.get(), entry.userInfo.get());
    }

private:
    explicit FakeAPI(std::shared_ptr<std::vector<SentRequest>> log)
        : VXVelvoxAPI("http://fake.test", "token")
        , m_log(std::move(log))
    {
    }
    std::shared_ptr<std::vector<SentRequest>> m_log;
};

} // namespace velvox::test
