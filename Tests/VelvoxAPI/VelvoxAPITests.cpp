// The service's client against a real HTTP server on loopback.

#include <VelvoxAPI/VXVelvoxAPI.h>

#include <Platform/Platform.h>
#include <TestServer.h>

#include <gtest/gtest.h>

using namespace velvox;

namespace {

class RecordingDelegate final : public VXVelvoxAPIDelegate {
public:
    void velvoxAPIDidFinishWithData(VXVelvoxAPI&, Data* data, Object* context, Dictionary*) override
    {
        body = data ? std::string(data->view()) : "";
        lastContext = context;
        ++finished;
    }
    void velvoxAPIDidFailWithError(VXVelvoxAPI&, Error* failure, Object* context, Dictionary*) override
    {
        error = failure;
        lastContext = context;
        ++failed;
    }
    void velvoxAPIDidReceiveData(VXVelvoxAPI&, Data*, Object*, Dictionary*) override { }
    void velvoxAPIDidReceiveBytes(VXVelvoxAPI&, uint64_t, uint64_t, Object*, Dictionary*) override { }
    void velvoxAPIDidSendBytes(VXVelvoxAPI&, uint64_t, uint64_t, Object*, Dictionary*) override { }

    std::string body;
    RefPtr<Error> error;
    RefPtr<Object> lastContext;
    int finished { 0 };
    int failed { 0 };
};

} // namespace

TEST(VXVelvoxAPI, SignsRequestsAndEncodesParameters)
{
    test::TestServer server;
    std::string authorization, query, form;
    server.routes().Get("/users/7/tracks", [&](const httplib::Request& request, httplib::Response& response) {
        authorization = request.get_header_value("Authorization");
        query = request.get_param_value("q") + "|" + request.get_param_value("limit");
        response.set_content("[1,2]", "application/json");
    });
    server.routes().Post("/tracks/9/comments", [&](const httplib::Request& request, httplib::Response& response) {
        form = request.get_param_value("comment[body]");
        response.set_content("{}", "application/json");
    });
    auto base = server.start();
    auto client = VXVelvoxAPI::create(base, "token-123");
    ASSERT_TRUE(client);
    RecordingDelegate delegate;
    auto api = client->copyWithAPIDelegate(&delegate);
    auto context = String::create("ctx");

    api->performMethod(*String::create("GET"), *String::create("users/7/tracks"),
        Dictionary::create({ { "q", String::create("a b&c").ptr() }, { "limit", String::create("5").ptr() } }).ptr(), context.ptr(), nullptr);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return delegate.finished + delegate.failed == 1; }, 10));
    EXPECT_EQ(authorization, "OAuth token-123");
    EXPECT_EQ(query, "a b&c|5");
    EXPECT_EQ(delegate.body, "[1,2]");
    EXPECT_EQ(delegate.lastContext.get(), context.ptr());

    api->performMethod(*String::create("POST"), *String::create("/tracks/9/comments"),
        Dictionary::create({ { "comment[body]", String::create("Nice – ünïcode").ptr() } }).ptr(), nullptr, nullptr);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return delegate.finished + delegate.failed == 2; }, 10));
    EXPECT_EQ(form, "Nice – ünïcode");
    EXPECT_EQ(api->runningRequestCount(), 0u);
}

TEST(VXVelvoxAPI, HTTPFailuresCarryStatusAndBody)
{
    test::TestServer server;
    server.routes().Get("/missing", [](const httplib::Request&, httplib::Response& response) {
        response.status = 404;
        response.set_content("{\"error\":\"nope\"}", "application/json");
    });
    auto base = server.start();
    RecordingDelegate delegate;
    auto api = VXVelvoxAPI::create(base, "t")->copyWithAPIDelegate(&delegate);
    api->performMethod(*String::create("GET"), *String::create("/missing"), nullptr, nullptr, nullptr);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return delegate.finished + delegate.failed == 1; }, 10));
    ASSERT_EQ(delegate.failed, 1);
    EXPECT_EQ(delegate.error->domain()->view(), VXVelvoxAPIErrorDomain);
    EXPECT_EQ(delegate.error->code(), 404);
    auto* body = dynamicDowncast<Data>(delegate.error->userInfo()->objectForKey(VXVelvoxAPIResponseBodyKey));
    ASSERT_TRUE(body);
    EXPECT_EQ(body->view(), "{\"error\":\"nope\"}");
}
