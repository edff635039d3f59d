// The client's retries against the sandbox over loopback, on a manual clock:
// which requests are sent again, when, and what the layers above hear.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXAPIController.h>

#include <TestServer.h>
#include <TestSupport.h>

#include <gtest/gtest.h>

using namespace velvox;
using velvox::sandbox::Fault;
using velvox::sandbox::SandboxService;

namespace {

class Outcomes final : public VXVelvoxAPIDelegate {
public:
    void velvoxAPIDidFinishWithData(VXVelvoxAPI&, Data* data, Object*, Dictionary*) override
    {
        body = std::string(data->view());
        ++finished;
    }
    void velvoxAPIDidFailWithError(VXVelvoxAPI&, Error* failure, Object*, Dictionary*) override
    {
        error = failure;
        ++failed;
    }
    void velvoxAPIDidReceiveData(VXVelvoxAPI&, Data* piece, Object*, Dictionary*) override { pieceBytes += piece->length(); }
    void velvoxAPIDidReceiveBytes(VXVelvoxAPI&, uint64_t, uint64_t, Object*, Dictionary*) override { }
    void velvoxAPIDidSendBytes(VXVelvoxAPI&, uint64_t, uint64_t, Object*, Dictionary*) override { }
    int outcomes() const { return finished + failed; }
    void reset()
    {
        body.clear();
        error = nullptr;
        finished = failed = 0;
        pieceBytes = 0;
    }

    std::string body;
    RefPtr<Error> error;
    int finished { 0 };
    int failed { 0 };
    size_t pieceBytes { 0 };
};

class Retries : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        s_service = new SandboxService({});
        ASSERT_TRUE(s_service->start());
    }
    static void TearDownTestSuite()
    {
        delete s_service;
        s_service = nullptr;
    }
    void SetUp() override
    {
        s_service->clearFaults();
        s_service->resetRequestCounts();
        api = makeClient(s_service->baseURL(), VXVelvoxAPI::RetryPolicy::recommended());
    }
    void TearDown() override { s_service->clearFaults(); }

    Ref<VXVelvoxAPI> makeClient(const std::string& base, const VXVelvoxAPI::RetryPolicy& policy)
    {
        auto client = VXVelvoxAPI::create(base, s_service->token());
        client->setTimeout(5);
        client->setRetryPolicy(policy);
        return client->copyWithAPIDelegate(&outcomes);
    }
    void fail(const std::string& path, int status, int count, std::string retryAfter = {})
    {
        s_service->addFault({ Fault::Kind::Status, path, status, 0, count, std::move(retryAfter) });
    }
    void perform(const char* method, const char* resource, Dictionary* parameters = nullptr)
    {
        api->performMethod(*String::create(method), *String::create(resource), parameters, nullptr, userInfo.ptr());
    }
    // Until the first failure waits to be sent again; answers the time it began waiting.
    double untilWaiting()
    {
        EXPECT_TRUE(RunLoop::current().runUntil([&] { return api->retryingRequestCount() == 1 || outcomes.outcomes(); }, 10));
        EXPECT_EQ(api->retryingRequestCount(), 1u);
        return time.clock.now();
    }
    // Runs until the outcome; waits for retries pass at once, manual time following them.
    bool untilOutcome() { return RunLoop::current().runUntil([&] { return outcomes.outcomes() > 0; }, 600); }

    static SandboxService* s_service;
    test::ManualTime time;
    Outcomes outcomes;
    Ref<Dictionary> userInfo = Dictionary::create();
    RefPtr<VXVelvoxAPI> api;
};

SandboxService* Retries::s_service = nullptr;

TEST_F(Retries, OnlyIdempotentRequestsFailingForAPassingReasonAreSentAgain)
{
    auto comment = Dictionary::create({ { "comment[body]", String::create("again?").ptr() } });
    auto upload = Dictionary::create({ { "asset", Data::create(std::string_view("bytes")).ptr() } });
    struct Case {
        const char* method;
        const char* resource;
        Dictionary* parameters;
        const char* faultPath;
        int status;
        int count; // of failed answers; -1 for all
        int requests;
        bool succeeds;
    };
    const Case cases[] = {
        { "GET", "/me", nullptr, "/me", 503, 2, 3, true },
        { "GET", "me", nullptr, "/me", 429, 1, 2, true },
        { "GET", "/me", nullptr, "/me", 500, -1, 4, false }, // three retries, then the last failure
        { "PUT", "me/followings/1004", nullptr, "/me/followings", 502, 1, 2, true },
        { "PUT", "/me/favorites/20005", nullptr, "/me/favorites", 503, 1, 2, true },
        { "DELETE", "/me/favorites/20005", nullptr, "/me/favorites", 504, 1, 2, true }, // what the PUT added
        { "GET", "/me", nullptr, "/me", 404, -1, 1, false },
        { "GET", "/me", nullptr, "/me", 403, -1, 1, false },
        { "POST", "/tracks/20005/comments", comment.ptr(), "/tracks", 503, -1, 1, false },
        { "POST", "/me/followings/1004", nullptr, "/me/followings", 503, -1, 1, false },
        { "PUT", "/tracks/20005", nullptr, "/tracks", 503, -1, 1, false },
        { "PUT", "/me/followings/1004/x", nullptr, "/me/followings", 503, -1, 1, false },
        { "PUT", "/me/favorites/20005", upload.ptr(), "/me/favorites", 503, -1, 1, false }, // an upload
    };
    for (auto& c : cases) {
        SCOPED_TRACE(std::string(c.method) + " " + c.resource + " " + std::to_string(c.status));
        s_service->clearFaults();
        s_service->resetRequestCounts();
        outcomes.reset();
        fail(c.faultPath, c.status, c.count);
        perform(c.method, c.resource, c.parameters);
        ASSERT_TRUE(untilOutcome());
        // Nothing more comes, however long one waits.
        RunLoop::current().runFor(120);
        EXPECT_EQ(s_service->totalRequestCount(), c.requests);
        EXPECT_EQ(outcomes.finished, c.succeeds ? 1 : 0);
        EXPECT_EQ(outcomes.failed, c.succeeds ? 0 : 1);
        if (c.succeeds) {
            // The pieces heard are those of the answer heard, not of failed attempts too.
            EXPECT_EQ(outcomes.pieceBytes, outcomes.body.size());
        } else {
            EXPECT_EQ(outcomes.error->code(), c.status);
        }
        EXPECT_EQ(api->retryingRequestCount(), 0u);
    }

    // With the policy off (the default) a failure is told at once.
    s_service->clearFaults();
    s_service->resetRequestCounts();
    outcomes.reset();
    api = makeClient(s_service->baseURL(), {});
    fail("/me", 503, 1);
    perform("GET", "/me");
    ASSERT_TRUE(untilOutcome());
    RunLoop::current().runFor(120);
    EXPECT_EQ(s_service->totalRequestCount(), 1);
    EXPECT_EQ(outcomes.failed, 1);
}

TEST_F(Retries, RetryAfterIsHonouredWithinBounds)
{
    // The first retry without a usable header waits 0.5 to 1 s (half of 1 s, plus jitter).
    struct Case {
        const char* retryAfter;
        double notYet; // seconds after the failure when it has not been sent again
        double sent;   // and when it has
    };
    const Case cases[] = {
        { "2", 1.95, 2.0 },
        { "1000000000000", 59.9, 60 }, // capped by maximumRetryAfter
        { "99999999999999999999999999999999999999999999", 59.9, 60 },
        { "-5", 0.49, 1.0 }, // not delta-seconds: the backoff waits
        { "soon", 0.49, 1.0 },
        { "Thu, 01 Jan 2026 00:00:05 GMT", 4.5, 5.0 }, // five seconds after the wall clock below
        { "Mon, 01 Jan 2024 00:00:00 GMT", -1, 0 },    // past: at once
        { "Thu, 01 Jan 2026 00:00:05", 0.49, 1.0 },    // not a date
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.retryAfter);
        s_service->clearFaults();
        s_service->resetRequestCounts();
        outcomes.reset();
        time.clock.setWallTime(ManualClock::defaultWallStart); // 2026-01-01 00:00:00 UTC
        fail("/me", 503, 1, c.retryAfter);
        perform("GET", "/me");
        double failedAt = untilWaiting();
        if (c.notYet >= 0) {
            time.clock.setNow(failedAt + c.notYet);
            RunLoop::current().runUntilIdle();
            EXPECT_EQ(api->retryingRequestCount(), 1u);
            EXPECT_EQ(s_service->totalRequestCount(), 1);
        }
        time.clock.setNow(failedAt + c.sent + 0.001);
        RunLoop::current().runUntilIdle();
        EXPECT_EQ(api->retryingRequestCount(), 0u);
        ASSERT_TRUE(untilOutcome());
        EXPECT_EQ(s_service->totalRequestCount(), 2);
        EXPECT_EQ(outcomes.finished, 1);
    }
}

TEST_F(Retries, CancellingAPendingRetryStopsIt)
{
    fail("/me", 503, -1);
    // Control: left alone, it is sent again.
    perform("GET", "/me");
    untilWaiting();
    ASSERT_TRUE(untilOutcome());
    EXPECT_EQ(s_service->totalRequestCount(), 4);

    s_service->resetRequestCounts();
    outcomes.reset();
    perform("GET", "/me");
    untilWaiting();
    api->cancelMethodWithUserInfo(userInfo.ptr());
    EXPECT_EQ(api->retryingRequestCount(), 0u);
    RunLoop::current().runFor(120);
    EXPECT_EQ(s_service->totalRequestCount(), 1);
    EXPECT_EQ(outcomes.outcomes(), 0);

    // The caller's token in the controller reaches the client's timer.
    s_service->resetRequestCounts();
    auto client = VXVelvoxAPI::create(s_service->baseURL(), s_service->token());
    client->setRetryPolicy(VXVelvoxAPI::RetryPolicy::recommended());
    auto controller = VXAPIController::create(client.get());
    int calls = 0;
    Subscription token;
    controller->meUserRessouce([&](VXAPIController*, Object*, Error*) { ++calls; }, &token);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return controller->api()->retryingRequestCount() == 1; }, 10));
    token.cancel();
    EXPECT_EQ(controller->api()->retryingRequestCount(), 0u);
    RunLoop::current().runFor(120);
    EXPECT_EQ(s_service->totalRequestCount(), 1);
    EXPECT_EQ(calls, 0);
}

TEST_F(Retries, ARefusedConnectionIsTriedAgainWithGrowingWaitsThenFailsOnce)
{
    for (bool on : { false, true }) {
        SCOPED_TRACE(on ? "on" : "off");
        outcomes.reset();
        api = makeClient("http://127.0.0.1:" + std::to_string(test::refusingLoopbackPort()), on ? VXVelvoxAPI::RetryPolicy::recommended() : VXVelvoxAPI::RetryPolicy {});
        int waits = 0;
        bool waiting = false;
        double began = time.clock.now();
        perform("GET", "/me");
        ASSERT_TRUE(RunLoop::current().runUntil([&] {
            bool now = api->retryingRequestCount() > 0;
            waits += now && !waiting;
            waiting = now;
            return outcomes.outcomes() > 0;
        },
            600));
        double ended = time.clock.now();
        RunLoop::current().runFor(120);
        EXPECT_EQ(outcomes.failed, 1);
        EXPECT_EQ(outcomes.error->domain()->str(), URLErrorDomain);
        EXPECT_EQ(outcomes.error->code(), 7);
        EXPECT_EQ(waits, on ? 3 : 0);
        if (on) {
            // 1, 2 and 4 s, each between its half and its whole.
            double waited = ended - began;
            EXPECT_GE(waited, 3.5);
            EXPECT_LE(waited, 7.5);
        }
    }
}

} // namespace
