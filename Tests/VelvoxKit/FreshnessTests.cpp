// Fresh data by age and by policy: fetches against the sandbox, with time on a
// manual clock (the run loop's, which the store's dates also read), so that
// growing old takes no waiting.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXArchiveStore.h>
#include <VelvoxKit/VXResourceController.h>

#include <StoreFixture.h>
#include <TestServer.h>

#include <atomic>

#include <filesystem>
#include <fstream>

using namespace velvox;

namespace {

class Freshness : public test::SandboxStoreFixture {
protected:
    void SetUp() override
    {
        SandboxStoreFixture::SetUp();
        options.maximumAgeByClass = { { "VXTrack", 60 } };
        aged = makeStore();
    }
    // A store as a new run of the host makes it, with the options of the test.
    RefPtr<VXResourceController> makeStore()
    {
        auto made = VXResourceController::connect(service->baseURL(), service->token(), options);
        EXPECT_TRUE(made);
        return made;
    }
    // Fetches a track as a host would, waiting for the answer when a request
    // is expected (a manual clock never ends a wait by itself); answers the
    // object the call answered at once.
    RefPtr<VXTrack> fetch(VXResourceController& from, std::string_view identifier, VXFetchPolicy policy, bool expectRequest, bool* called = nullptr)
    {
        bool answered = false;
        auto now = from.trackForIdentifier(String::create(identifier).ptr(), policy, [&](VXTrack*, Error* error) {
            EXPECT_FALSE(error);
            answered = true;
        });
        if (expectRequest)
            EXPECT_TRUE(waitFor([&] { return answered; }));
        else
            RunLoop::current().runUntilIdle();
        if (called)
            *called = answered;
        return now;
    }
    int requests(std::string_view identifier) const { return service->requestCount("GET /tracks/" + std::string(identifier)); }

    test::ManualTime time;
    VXResourceController::Options options;
    RefPtr<VXResourceController> aged;
};

} // namespace

TEST_F(Freshness, ACacheFirstFetchAsksAgainOnlyOnceItsObjectHasGrownOld)
{
    EXPECT_FALSE(fetch(*aged, "20005", VXFetchPolicy::CacheFirst, true));
    EXPECT_EQ(requests("20005"), 1);
    auto track = aged->cachedResource<VXTrack>("20005");
    ASSERT_TRUE(track);
    EXPECT_DOUBLE_EQ(aged->receivedAt(*track), Date::now()->timeIntervalSince1970());

    time.clock.advance(59);
    bool called = true;
    EXPECT_EQ(fetch(*aged, "20005", VXFetchPolicy::CacheFirst, false, &called).get(), track.get());
    EXPECT_FALSE(called);
    EXPECT_EQ(requests("20005"), 1);
    // The Parts' call without forceRefresh is a cache-first fetch.
    EXPECT_EQ(aged->trackForIdentifier(String::create("20005").ptr(), false, nullptr).get(), track.get());
    EXPECT_EQ(requests("20005"), 1);

    time.clock.advance(2);
    EXPECT_EQ(fetch(*aged, "20005", VXFetchPolicy::CacheFirst, true, &called).get(), track.get()); // the old object at once
    EXPECT_TRUE(called);
    EXPECT_EQ(requests("20005"), 2);
    EXPECT_EQ(aged->cachedResource<VXTrack>("20005").get(), track.get()) << "identity kept across the refresh";

    // A class without a maximum age never grows old.
    bool userAnswered = false;
    aged->userForIdentifier(String::create("1002").ptr(), VXFetchPolicy::CacheFirst, [&](VXUser*, Error*) { userAnswered = true; });
    ASSERT_TRUE(waitFor([&] { return userAnswered; }));
    time.clock.advance(365 * 86400.0);
    EXPECT_TRUE(aged->userForIdentifier(String::create("1002").ptr(), VXFetchPolicy::CacheFirst, nullptr));
    EXPECT_EQ(service->requestCount("GET /users/1002"), 1);
}

TEST_F(Freshness, ARestartWithinTheMaximumAgeAsksNothingAndAfterItAsksOnce)
{
    fetch(*aged, "20005", VXFetchPolicy::CacheFirst, true);
    ASSERT_FALSE(aged->save());
    EXPECT_TRUE(std::filesystem::exists(VXArchiveStore::receiptsPath()));

    time.clock.advance(30);
    auto restarted = makeStore();
    EXPECT_TRUE(fetch(*restarted, "20005", VXFetchPolicy::CacheFirst, false));
    EXPECT_EQ(requests("20005"), 1);
    time.clock.advance(31);
    fetch(*restarted, "20005", VXFetchPolicy::CacheFirst, true);
    fetch(*restarted, "20005", VXFetchPolicy::CacheFirst, false);
    EXPECT_EQ(requests("20005"), 2);

    // Without a maximum age, as the interface has it: nothing recorded, no file written.
    std::filesystem::remove(VXArchiveStore::receiptsPath());
    options = {};
    auto plain = makeStore();
    ASSERT_FALSE(plain->save());
    EXPECT_FALSE(std::filesystem::exists(VXArchiveStore::receiptsPath()));
    EXPECT_EQ(plain->receivedAt(*plain->cachedResource<VXTrack>("20005")), 0);
}

TEST_F(Freshness, EachPolicyAnswersFromWhereItSays)
{
    // Cache-only: what the map holds, never a request.
    EXPECT_FALSE(fetch(*aged, "20006", VXFetchPolicy::CacheOnly, false));
    EXPECT_EQ(requests("20006"), 0);

    // Network-only: nothing at once, the fresh object to the block.
    EXPECT_FALSE(fetch(*aged, "20006", VXFetchPolicy::NetworkOnly, true));
    auto track = aged->cachedResource<VXTrack>("20006");
    ASSERT_TRUE(track);
    EXPECT_FALSE(fetch(*aged, "20006", VXFetchPolicy::NetworkOnly, true));
    EXPECT_EQ(requests("20006"), 2);
    EXPECT_EQ(fetch(*aged, "20006", VXFetchPolicy::CacheOnly, false).get(), track.get());

    // Cache-and-network: the held object at once, then the service's values,
    // announced once to the object's observers.
    RefPtr<String> title = track->title();
    track->setValue(String::create("edited here"), "title");
    int announced = 0;
    auto observation = track->addObserver("title", [&](ZUObject&, const String&) { ++announced; });
    bool called = false;
    EXPECT_EQ(fetch(*aged, "20006", VXFetchPolicy::CacheAndNetwork, true, &called).get(), track.get());
    EXPECT_TRUE(called);
    EXPECT_EQ(announced, 1);
    EXPECT_TRUE(track->title()->isEqual(title.get()));

    // A policy by class applies to the calls without forceRefresh.
    options.fetchPolicyByClass = { { "VXTrack", VXFetchPolicy::CacheOnly } };
    aged->setOptions(options);
    EXPECT_FALSE(aged->trackForIdentifier(String::create("20007").ptr(), false, nullptr));
    RunLoop::current().runUntilIdle();
    EXPECT_EQ(requests("20007"), 0);
}

TEST_F(Freshness, ACraftedOrTruncatedReceiptsArchiveReadsAsEmpty)
{
    fetch(*aged, "20005", VXFetchPolicy::CacheFirst, true);
    ASSERT_FALSE(aged->save());
    auto path = VXArchiveStore::receiptsPath();
    auto size = std::filesystem::file_size(path);
    for (auto damage : { std::string("truncated"), std::string("garbage") }) {
        if (damage == "truncated")
            std::filesystem::resize_file(path, size / 2);
        else
            std::ofstream(path, std::ios::trunc) << "not an archive at all";
        auto restarted = makeStore();
        EXPECT_EQ(restarted->receivedAt(*restarted->cachedResource<VXTrack>("20005")), 0) << damage;
        EXPECT_FALSE(restarted->isFresh(*restarted->cachedResource<VXTrack>("20005"))) << damage;
        EXPECT_FALSE(std::filesystem::exists(path)) << damage << ": not set aside";
        ASSERT_FALSE(aged->save());
    }
}

TEST(FreshnessFromTheService, CacheControlSetsHowLongWhatItAnsweredStaysFresh)
{
    constexpr double tenYears = 10 * 365.25 * 86400;
    struct Case {
        const char* header;
        double maximumAge;
    } cases[] = {
        { "max-age=60", 60 }, { "public, MAX-AGE=\"30\"", 30 }, { "private,max-age=0", 0 },
        { "max-age=99999999999999999999999999", tenYears }, { "max-age=-5", -1 }, { "max-age=abc", -1 },
        { "max-age=", -1 }, { "", -1 }, { "no-store", 0 }, { "max-age=600, no-cache", 0 }, { ",,, =, max-age", -1 },
    };
    for (auto& test : cases)
        EXPECT_EQ(VXVelvoxAPI::maximumAgeInCacheControl(test.header), test.maximumAge) << test.header;

    test::TemporaryFolder data;
    test::ScopedEnvironment dataHome { "XDG_DATA_HOME", data.path() };
    test::ManualTime time;
    std::atomic<int> requests { 0 };
    test::TestServer server;
    server.routes().Get(R"(/tracks/(\d+))", [&](const httplib::Request& request, httplib::Response& response) {
        ++requests;
        std::string id = request.matches[1];
        response.set_header("Cache-Control", id == "1" ? "max-age=100" : "no-cache");
        response.set_content("{\"id\":" + id + ",\"title\":\"Track " + id + "\",\"state\":\"finished\"}", "application/json");
    });
    auto base = server.start();
    VXResourceController::Options options;
    options.honoursCacheControl = true;
    auto store = VXResourceController::connect(base, "token", options);
    ASSERT_TRUE(store);
    auto fetch = [&](const char* identifier) {
        int before = requests;
        bool answered = false;
        store->trackForIdentifier(identifier, false, [&](VXTrack*, Error*) { answered = true; });
        if (!store->cachedResource<VXTrack>(identifier) || !store->isFresh(*store->cachedResource<VXTrack>(identifier)) || answered)
            RunLoop::current().runUntil([&] { return answered; }, 10);
        RunLoop::current().runUntilIdle();
        return requests - before;
    };
    EXPECT_EQ(fetch("1"), 1);
    time.clock.advance(50);
    EXPECT_EQ(fetch("1"), 0);
    time.clock.advance(60);
    EXPECT_EQ(fetch("1"), 1);
    EXPECT_EQ(fetch("2"), 1);
    EXPECT_EQ(fetch("2"), 1) << "no-cache: never fresh";
    // The service's word is kept with the receipt: a restart within it asks nothing.
    ASSERT_FALSE(store->save());
    time.clock.advance(90);
    store = VXResourceController::connect(base, "token", options);
    EXPECT_EQ(fetch("1"), 0);
    time.clock.advance(20);
    EXPECT_EQ(fetch("1"), 1);
    VXResourceController::setSharedResourceController(nullptr);
}
