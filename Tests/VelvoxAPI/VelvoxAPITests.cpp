// The service's client against a real HTTP server on loopback.

#include <VelvoxAPI/VXVelvoxAPI.h>

#include <Platform/Platform.h>
#include <TestServer.h>
#include <TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

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
    void velvoxAPIDidReceiveData(VXVelvoxAPI&, Data* piece, Object*, Dictionary*) override { pieceBytes += piece->length(); }
    void velvoxAPIDidReceiveBytes(VXVelvoxAPI&, uint64_t bytes, uint64_t, Object*, Dictionary*) override { lastReceived = bytes; }
    void velvoxAPIDidSendBytes(VXVelvoxAPI&, uint64_t, uint64_t, Object*, Dictionary*) override { }
    bool velvoxAPIWantsReceivedData() const override { return wantsReceivedData; }

    std::string body;
    RefPtr<Error> error;
    RefPtr<Object> lastContext;
    int finished { 0 };
    int failed { 0 };
    bool wantsReceivedData { true };
    size_t pieceBytes { 0 };
    uint64_t lastReceived { 0 };
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
    server.routes().Get("/moved", [](const httplib::Request&, httplib::Response& response) {
        response.status = 301;
        response.set_header("Location", "/elsewhere");
        response.set_content("{\"looks\":\"like an answer\"}", "application/json");
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

    // A redirect with a JSON body is a failure with its status, not an answer.
    api->performMethod(*String::create("GET"), *String::create("/moved"), nullptr, nullptr, nullptr);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return delegate.finished + delegate.failed == 2; }, 10));
    EXPECT_EQ(delegate.finished, 0);
    EXPECT_EQ(delegate.error->code(), 301);
}

TEST(VXVelvoxAPI, RefusesOtherProtocolsAndTokensThatWouldInjectHeaders)
{
    static constexpr struct {
        std::string_view baseURL, token;
        std::string_view problem; // empty: accepted
    } cases[] = {
        { "https://api.velvox.test", "abc", "" },
        { "HTTP://127.0.0.1:8080/v1", "abc", "" },
        { "file:///etc", "abc", "must start with http:// or https://" },
        { "dict://127.0.0.1:2628/", "abc", "must start with http:// or https://" },
        { "gopher://127.0.0.1/", "abc", "must start with http:// or https://" },
        { "localhost:8080", "abc", "must start with http:// or https://" },
        { "127.0.0.1:8080", "abc", "not a URL" },
        { "http:///path", "abc", "no host" },
        { "not a url", "abc", "not a URL" },
        { "https://api.velvox.test", "abc\r\nX-Injected: 1", "control character" },
        { "https://api.velvox.test", "abc\n", "control character" },
    };
    for (auto& c : cases) {
        std::string problem;
        auto client = VXVelvoxAPI::create(c.baseURL, c.token, &problem);
        if (c.problem.empty()) {
            EXPECT_TRUE(client) << c.baseURL << ": " << problem;
        } else {
            EXPECT_FALSE(client) << c.baseURL;
            EXPECT_NE(problem.find(c.problem), std::string::npos) << c.baseURL << ": " << problem;
            EXPECT_EQ(problem.find("X-Injected"), std::string::npos) << "the token must not be repeated";
        }
    }
}

TEST(VXVelvoxAPI, ThePiecesOfAnAnswerGoOnlyToADelegateThatReadsThem)
{
    test::TestServer server;
    std::string noise = test::incompressibleBytes(150000);
    server.routes().Get("/tracks", [&](const httplib::Request&, httplib::Response& response) {
        response.set_content(noise, "application/octet-stream");
    });
    auto base = server.start();
    for (bool wants : { true, false }) {
        RecordingDelegate delegate;
        delegate.wantsReceivedData = wants;
        auto api = VXVelvoxAPI::create(base, "token")->copyWithAPIDelegate(&delegate);
        api->performMethod(*String::create("GET"), *String::create("tracks"), nullptr, nullptr, nullptr);
        ASSERT_TRUE(RunLoop::current().runUntil([&] { return delegate.finished + delegate.failed == 1; }, 10));
        EXPECT_EQ(delegate.body, noise);
        EXPECT_EQ(delegate.pieceBytes, wants ? noise.size() : 0u) << wants;
        EXPECT_EQ(delegate.lastReceived, wants ? noise.size() : 0u) << wants;
    }
}

TEST(VXVelvoxAPI, ResourcePathsAndIdentifiersCannotLeaveTheirPlace)
{
    static constexpr struct {
        std::string_view resource;
        bool sent;
        std::string_view problem; // a piece of the reason, when refused
    } paths[] = {
        { "/tracks/12", true, "" },
        { "tracks/12/comments?order=new&q=a/../b", true, "" },
        { "/users/%41bc", true, "" },
        { "/tracks/../me", false, "segment" },
        { "/tracks/./12", false, "segment" },
        { "/tracks//12", false, "segment" },
        { "/tracks/%2e%2E/me", false, "segment" },
        { "/tracks/12#x", false, "#" },
        { "/tracks/1 2", false, "" },
        { "/tracks/\x7f", false, "" },
        { "/tracks/\xc3\xa9", false, "" },
        { "/tracks\\12", false, "" },
    };
    for (auto& c : paths) {
        auto problem = VXVelvoxAPI::resourceProblem(c.resource);
        EXPECT_EQ(problem.empty(), c.sent) << c.resource << ": " << problem;
        EXPECT_NE(problem.find(c.problem), std::string::npos) << c.resource << ": " << problem;
    }

    EXPECT_EQ(VXVelvoxAPI::pathSegment(Number::create(int64_t(1001)).ptr())->view(), "1001");
    EXPECT_EQ(VXVelvoxAPI::pathSegment(String::create("a-b_c.d~9").ptr())->view(), "a-b_c.d~9");
    EXPECT_EQ(VXVelvoxAPI::pathSegment(String::create("1001/../x").ptr())->view(), "1001%2F..%2Fx");
    EXPECT_EQ(VXVelvoxAPI::pathSegment(String::create("5?x=y#z").ptr())->view(), "5%3Fx%3Dy%23z");
    EXPECT_EQ(VXVelvoxAPI::pathSegment(String::create("%2e").ptr())->view(), "%252e");
    // A whole segment of dots stays a dot segment once decoded, so it is refused
    // when it reaches performMethod rather than reinterpreted here.
    EXPECT_FALSE(VXVelvoxAPI::resourceProblem("/tracks/" + std::string(VXVelvoxAPI::pathSegment(String::create("..").ptr())->view())).empty());

    // A refused path fails through the delegate, later, and reaches no server.
    test::TestServer server;
    std::atomic<int> requests { 0 };
    server.routes().Get(R"([\s\S]*)", [&](const httplib::Request&, httplib::Response& response) {
        ++requests;
        response.set_content("{}", "application/json");
    });
    auto base = server.start();
    RecordingDelegate delegate;
    auto api = VXVelvoxAPI::create(base, "t")->copyWithAPIDelegate(&delegate);
    api->performMethod(*String::create("GET"), *String::create("/tracks/../me"), nullptr, nullptr, nullptr);
    EXPECT_EQ(delegate.failed, 0) << "the delegate hears of a refusal after performMethod returns";
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return delegate.finished + delegate.failed == 1; }, 10));
    ASSERT_EQ(delegate.failed, 1);
    EXPECT_EQ(delegate.error->domain()->view(), VXVelvoxAPIErrorDomain);
    EXPECT_EQ(delegate.error->code(), VXVelvoxAPIErrorInvalidResource);
    EXPECT_EQ(requests.load(), 0);
}

TEST(VXVelvoxAPI, RequestsBeyondTheLimitWaitTheirTurnInOrder)
{
    test::TestServer server;
    std::mutex lock;
    int running = 0, mostRunning = 0;
    std::vector<std::string> order;
    server.routes().Get(R"(/slow/(\d+))", [&](const httplib::Request& request, httplib::Response& response) {
        {
            std::lock_guard guard(lock);
            mostRunning = std::max(mostRunning, ++running);
            order.push_back(request.matches[1]);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        {
            std::lock_guard guard(lock);
            --running;
        }
        response.set_content("[]", "application/json");
    });
    auto base = server.start();
    RecordingDelegate delegate;
    auto api = VXVelvoxAPI::create(base, "t")->copyWithAPIDelegate(&delegate);
    api->setMaximumRunningRequests(2);
    for (int i = 0; i < 7; ++i)
        api->performMethod(*String::create("GET"), *String::create("/slow/" + std::to_string(i)), nullptr, nullptr, nullptr);
    EXPECT_EQ(api->runningRequestCount(), 2u);
    EXPECT_EQ(api->queuedRequestCount(), 5u);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return delegate.finished + delegate.failed == 7; }, 20));
    EXPECT_EQ(delegate.finished, 7);
    EXPECT_EQ(mostRunning, 2);
    ASSERT_EQ(order.size(), 7u);
    // They start two by two in the order they were made (within a pair, the
    // server may see either first).
    for (size_t pair = 0; pair < order.size(); pair += 2) {
        std::vector<std::string> arrived(order.begin() + pair, order.begin() + std::min(pair + 2, order.size()));
        std::sort(arrived.begin(), arrived.end());
        EXPECT_EQ(arrived.front(), std::to_string(pair)) << "pair " << pair / 2;
    }
    EXPECT_EQ(api->runningRequestCount() + api->queuedRequestCount(), 0u);
}
