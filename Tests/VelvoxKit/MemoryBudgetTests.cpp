// The store under a memory budget, against a server on loopback that hands
// out a new page of 50 distinct tracks at every load: the estimate stays
// near the budget, what the test holds or observes stays the one object, what
// was let go is fetched again when asked for, and the archive holds what the
// map still holds.

#include <Platform/Platform.h>
#include <VelvoxKit/VXResourceController.h>

#include <StoreFixture.h>
#include <TestServer.h>

#include <atomic>
#include <filesystem>
#include <string>

using namespace velvox;

namespace {

constexpr int64_t firstTrack = 1000000;
constexpr int64_t pageLength = 50;
constexpr int64_t userCount = 500;

// A track record of the stream, as the service would send it; `version`
// changes the title, as an edit on the service would.
std::string trackRecord(int64_t id, int version)
{
    auto n = std::to_string(id);
    auto u = std::to_string(7000000 + id % userCount);
    return R"({"kind":"track","id":)" + n + R"(,"title":"track )" + n + " v" + std::to_string(version)
        + R"(","permalink":"track-)" + n + R"(","permalink_url":"https://music.example.com/user-)" + u + "/track-" + n
        + R"(","uri":"https://api.example.com/tracks/)" + n + R"(","artwork_url":"https://img.example.com/artworks-)" + n
        + R"(-large.jpg","waveform_url":"https://wave.example.com/)" + n + R"(_m.json","stream_url":"https://api.example.com/tracks/)" + n
        + R"(/stream","description":"a track of the stream, number )" + n + R"(, made for the test of the budget","genre":"Test",)"
        + R"("tag_list":"one two three","license":"all-rights-reserved","duration":180000,"created_at":"2015-07-06T14:55:49Z",)"
        + R"("comment_count":3,"playback_count":1000,"sharing":"public","state":"finished","user_id":)" + u
        + R"(,"user":{"kind":"user","id":)" + u + R"(,"username":"user )" + u + R"(","permalink":"user-)" + u
        + R"(","avatar_url":"https://img.example.com/avatars-)" + u + R"(-large.jpg"}})";
}

std::string pageBody(int64_t page, int version)
{
    std::string body = "[";
    for (int64_t i = 0; i < pageLength; ++i)
        body += (i ? "," : "") + trackRecord(firstTrack + page * pageLength + i, version);
    return body + "]";
}

// A type the server does not compress: 4,000 pages through its brotli would
// take minutes, and the client reads the body whatever its type.
constexpr const char* uncompressedType = "application/octet-stream";

class MemoryBudget : public testing::Test {
protected:
    void SetUp() override
    {
        server.routes().Get("/tracks", [this](const httplib::Request&, httplib::Response& response) {
            response.set_content(pageBody(nextPage++, version), uncompressedType);
        });
        server.routes().Get(R"(/tracks/(\d+))", [this](const httplib::Request& request, httplib::Response& response) {
            ++trackRequests;
            response.set_content(trackRecord(std::stoll(request.matches[1]), version), uncompressedType);
        });
        // Headers and body go out in separate writes: without this, each
        // answer waits for the client's delayed acknowledgement.
        server.routes().set_tcp_nodelay(true);
        server.start();
    }
    void TearDown() override { VXResourceController::setSharedResourceController(nullptr); }

    RefPtr<VXResourceController> makeStore(std::optional<size_t> budget)
    {
        VXResourceController::Options options;
        options.memoryBudget = budget;
        auto made = VXResourceController::connect(server.baseURL(), "token", options);
        EXPECT_TRUE(made);
        return made;
    }
    // A collection that shows a new page at every reload, as a feed would.
    Ref<VXTrackCollectionController> feed(VXResourceController& store)
    {
        auto collection = store.tracksForSearchQuery("stream");
        collection->setPageSize(pageLength);
        return collection;
    }
    // Loads the next page and gives the run loop the turn that follows it.
    static bool reload(VXRemoteCollectionController& collection)
    {
        bool done = false;
        RefPtr<Error> failure;
        collection.loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false, [&](Error* error) {
            failure = error;
            done = true;
        });
        bool ended = RunLoop::current().runUntil([&] { return done; }, 10);
        RunLoop::current().runUntilIdle();
        return ended && !failure;
    }
    // A fetch as a host makes it, waiting for the answer when one is due.
    static RefPtr<VXTrack> fetch(VXResourceController& store, int64_t id, bool forceRefresh, RefPtr<VXTrack>* answered = nullptr)
    {
        bool done = false;
        auto now = store.trackForIdentifier(std::to_string(id), forceRefresh, [&](VXTrack* track, Error* error) {
            EXPECT_FALSE(error);
            if (answered)
                *answered = track;
            done = true;
        });
        if (forceRefresh || !now) {
            EXPECT_TRUE(RunLoop::current().runUntil([&] { return done; }, 10));
        }
        RunLoop::current().runUntilIdle();
        return now;
    }
    static size_t fileSize(const std::string& path)
    {
        std::error_code error;
        auto size = std::filesystem::file_size(path, error);
        return error ? 0 : size;
    }

    test::TemporaryFolder data;
    test::ScopedEnvironment dataHome { "XDG_DATA_HOME", data.path() };
    test::TestServer server;
    std::atomic<int64_t> nextPage { 0 };
    std::atomic<int> version { 0 };
    std::atomic<int> trackRequests { 0 };
};

} // namespace

TEST_F(MemoryBudget, AStreamOfTracksStaysWithinTheBudgetAndKeepsWhatIsHeld)
{
    constexpr size_t budget = 32 * 1024 * 1024;
    constexpr int64_t pages = 200000 / pageLength;

    // What the archive of an unbudgeted map takes per page of the stream.
    size_t samplePerPage = 0;
    {
        auto unbudgeted = makeStore(std::nullopt);
        auto unbudgetedFeed = feed(*unbudgeted);
        constexpr int64_t samplePages = 20;
        for (int64_t page = 0; page < samplePages; ++page)
            ASSERT_TRUE(reload(unbudgetedFeed));
        EXPECT_EQ(unbudgeted->memoryBudgetUsage().objectsLetGo, 0u);
        EXPECT_EQ(unbudgeted->resourceCacheStatistics().objectCount, size_t(samplePages * pageLength + userCount));
        ASSERT_FALSE(unbudgeted->save());
        samplePerPage = fileSize(unbudgeted->resourceCacheFilePath()) / samplePages;
        ASSERT_GT(samplePerPage, 0u);
        std::filesystem::remove(unbudgeted->resourceCacheFilePath());
        nextPage = 0;
    }

    auto store = makeStore(budget);
    auto collection = feed(*store);
    ASSERT_TRUE(reload(collection));
    // The test holds five tracks and observes five others without holding them.
    auto items = collection->items<VXTrack>();
    ASSERT_EQ(items.size(), size_t(pageLength));
    std::vector<Ref<VXTrack>> held(items.begin(), items.begin() + 5);
    std::vector<const VXTrack*> observed;
    std::vector<int> heard(5);
    SubscriptionSet observations;
    for (size_t i = 0; i < 5; ++i) {
        observed.push_back(items[5 + i].ptr());
        observations.add(items[5 + i]->addObserver("title", [&heard, i](ZUObject&, const String&) { ++heard[i]; }));
    }
    items.clear();

    size_t largest = 0;
    for (int64_t page = 1; page < pages; ++page) {
        ASSERT_TRUE(reload(collection)) << "page " << page;
        auto usage = store->memoryBudgetUsage();
        largest = std::max(largest, usage.estimatedBytes);
        ASSERT_LE(usage.estimatedBytes, budget + budget / 20) << "page " << page;
        if (page % 1000 == 0) {
            EXPECT_EQ(store->resourceCacheStatistics().estimatedBytes, usage.estimatedBytes) << "page " << page;
        }
    }
    auto statistics = store->resourceCacheStatistics();
    EXPECT_EQ(statistics.memoryBudget, std::optional<size_t>(budget));
    EXPECT_GT(largest, budget / 2) << "the stream should have filled the budget";
    EXPECT_GT(statistics.objectsLetGo, 150000u);
    EXPECT_LT(statistics.objectCount, 60000u);

    // Held and observed tracks are still the map's objects, and hear a refresh.
    version = 1;
    for (size_t i = 0; i < 5; ++i) {
        auto id = held[i]->resourceIdentifier();
        EXPECT_EQ(store->cachedResource<VXTrack>(id).get(), held[i].ptr());
        fetch(*store, std::stoll(id->str()), true);
        EXPECT_EQ(held[i]->title()->str(), "track " + id->str() + " v1");
        auto observedTrack = store->cachedResource<VXTrack>(std::to_string(firstTrack + 5 + i));
        EXPECT_EQ(observedTrack.get(), observed[i]);
        fetch(*store, firstTrack + 5 + int64_t(i), true);
        EXPECT_EQ(heard[i], 1);
    }
    // One that was let go is asked for again, and is a new object.
    int64_t letGo = firstTrack + 100 * pageLength;
    EXPECT_FALSE(store->cachedResource<VXTrack>(std::to_string(letGo)));
    int before = trackRequests;
    RefPtr<VXTrack> answered;
    EXPECT_FALSE(fetch(*store, letGo, false, &answered));
    EXPECT_EQ(trackRequests, before + 1);
    ASSERT_TRUE(answered);
    EXPECT_EQ(answered->title()->str(), "track " + std::to_string(letGo) + " v1");

    // The archive holds what the map holds: far less than the whole stream's.
    auto count = store->resourceCacheStatistics().objectCount;
    ASSERT_FALSE(store->save());
    size_t archived = fileSize(store->resourceCacheFilePath());
    EXPECT_LT(archived, samplePerPage * pages / 4);
    collection = feed(*store);
    held.clear();
    observations.cancel();
    store = nullptr;
    auto restarted = makeStore(std::nullopt);
    EXPECT_EQ(restarted->resourceCacheStatistics().objectCount, count);
}

TEST_F(MemoryBudget, ABudgetOfNothingLetsGoOfAllThatIsUnheldAndOneOfEverythingNever)
{
    struct Case {
        const char* name;
        std::optional<size_t> budget;
        bool letsGo;
    };
    const Case cases[] = {
        { "0", 0, true },
        { "2^63", size_t(1) << 63, false },
        { "the largest", SIZE_MAX, false },
        { "none (the control)", std::nullopt, false },
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        nextPage = 0;
        auto store = makeStore(c.budget);
        auto collection = feed(*store);
        for (int page = 0; page < 3; ++page)
            ASSERT_TRUE(reload(collection));
        // The collection holds the last page's tracks; their users are asked of the store.
        auto statistics = store->resourceCacheStatistics();
        auto usage = store->memoryBudgetUsage();
        EXPECT_EQ(statistics.memoryBudget, c.budget);
        EXPECT_EQ(usage.budget, c.budget);
        size_t everything = 3 * pageLength + 3 * pageLength; // tracks, and users (500 > 150)
        EXPECT_EQ(statistics.objectCount, c.letsGo ? size_t(pageLength) : everything);
        EXPECT_EQ(statistics.objectsLetGo, c.letsGo ? everything - pageLength : 0);
        EXPECT_EQ(usage.estimatedBytes, c.budget ? statistics.estimatedBytes : 0);
        // Held by the collection: the same objects after a turn of the loop.
        auto shown = collection->items<VXTrack>();
        ASSERT_EQ(shown.size(), size_t(pageLength));
        EXPECT_EQ(store->cachedResource<VXTrack>(shown[0]->resourceIdentifier()).get(), shown[0].ptr());
        // Nothing more can go: no slice waits to run again.
        EXPECT_EQ(RunLoop::current().pendingTimerCount(), 0u);

        // A track of the first page: asked of the service again only when let go.
        int before = trackRequests;
        auto first = fetch(*store, firstTrack, false);
        EXPECT_EQ(!first, c.letsGo);
        EXPECT_EQ(trackRequests, before + (c.letsGo ? 1 : 0));
        collection = feed(*store);
    }
}

TEST_F(MemoryBudget, AnArchiveLargerThanTheBudgetIsBroughtUnderItOnceLoaded)
{
    size_t whole = 0, objects = 0, archived = 0;
    {
        auto unbudgeted = makeStore(std::nullopt);
        auto collection = feed(*unbudgeted);
        for (int page = 0; page < 20; ++page)
            ASSERT_TRUE(reload(collection));
        auto statistics = unbudgeted->resourceCacheStatistics();
        whole = statistics.estimatedBytes;
        objects = statistics.objectCount;
        ASSERT_FALSE(unbudgeted->save());
        archived = fileSize(unbudgeted->resourceCacheFilePath());
    }
    // The control: without a budget, a restart holds all of it.
    EXPECT_EQ(makeStore(std::nullopt)->resourceCacheStatistics().objectCount, objects);

    size_t budget = whole / 4;
    auto store = makeStore(budget);
    EXPECT_EQ(store->resourceCacheStatistics().objectCount, objects) << "loaded whole, let go on the run loop";
    EXPECT_EQ(store->memoryBudgetUsage().estimatedBytes, whole);
    EXPECT_TRUE(RunLoop::current().runUntil([&] { return store->memoryBudgetUsage().estimatedBytes <= budget; }, 10));
    EXPECT_LT(store->resourceCacheStatistics().objectCount, objects / 2);
    EXPECT_GT(store->memoryBudgetUsage().objectsLetGo, 0u);
    ASSERT_FALSE(store->save());
    EXPECT_LT(fileSize(store->resourceCacheFilePath()), archived / 2);
}
