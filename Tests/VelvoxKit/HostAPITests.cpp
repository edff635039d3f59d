// What a host meets first: the one-call set-up, identifiers as text, typed
// lists, and cancelling what it started (against the sandbox, with answers
// held back by latency faults so that every call is still under way when its
// token goes).

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXResourceController.h>

#include <StoreFixture.h>

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace velvox;

namespace {

class Cancellation : public test::SandboxStoreFixture {
protected:
    void holdAnswers(double seconds, const std::string& path = "/")
    {
        sandbox::Fault fault;
        fault.pathPrefix = path;
        fault.seconds = seconds;
        service->addFault(fault);
    }
    VXAPIController& controller() { return *store->apiController(); }
    VXVelvoxAPI& client() { return *controller().api(); }
    // Nothing under way at any layer: the controller's table, the client's
    // running and waiting requests, the loader's transfers.
    void expectNothingUnderWay()
    {
        EXPECT_EQ(controller().runningConnections().count(), 0u);
        EXPECT_EQ(client().runningRequestCount(), 0u);
        EXPECT_EQ(client().queuedRequestCount(), 0u);
        EXPECT_EQ(URLLoader::current().runningTaskCount(), 0u);
    }
};

Ref<String> text(std::string_view value) { return String::create(value); }

Ref<Dictionary> uploadOf(size_t bytes)
{
    return Dictionary::create({
        { "track[title]", String::create("Cancelled").ptr() },
        { "track[asset_data]", Data::create(std::string(bytes, 'a')).ptr() },
    });
}

} // namespace

TEST_F(Cancellation, NoCancelledCallEverCallsBackAndWhatItCapturedGoesAtOnce)
{
    holdAnswers(0.6);
    // What every block holds: when only the test holds it, the blocks are gone.
    auto captured = std::make_shared<int>(0);
    int called = 0;
    SubscriptionSet calls;
    // A new block each time, of whatever signature the call takes.
    auto block = [&] { return [captured, &called](auto&&...) { ++called; }; };
    store->meUserForceRefresh(true, block(), calls.add());
    store->userForIdentifier(text("1002").ptr(), true, block(), calls.add());
    store->trackForIdentifier(text("20005").ptr(), true, block(), calls.add());
    store->commentForIdentifier(text("30001").ptr(), true, block(), calls.add());
    EXPECT_EQ(store->meIsFollowingUserForIdentifier(text("1002").ptr(), block(), calls.add()), -2);
    store->meIsFollowedByUserForIdentifier(text("1002").ptr(), block(), calls.add());
    store->startFollowingUserForIdentifier(text("1003").ptr(), block(), calls.add());
    store->stopFollowingByUserForIdentifier(text("1004").ptr(), block(), calls.add());
    store->postCommentWithTrackIdentifier(text("20005").ptr(), text("gone").ptr(), 1.5, block(), calls.add());
    store->postTrackWithTrackDictionary(uploadOf(1000).ptr(), [captured, &called](VXTrack*, float) { ++called; }, block(), calls.add());
    auto list = store->incomingActivities();
    list->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false, block(), calls.add());
    EXPECT_EQ(calls.activeCount(), 11u);
    EXPECT_GT(captured.use_count(), 1);

    // Let the first requests reach the service (more than the client runs at once wait their turn).
    RunLoop::current().runFor(0.2);
    int reached = service->totalRequestCount();
    EXPECT_GT(reached, 0);
    EXPECT_LE(reached, static_cast<int>(client().maximumRunningRequests()));
    calls.cancel();
    EXPECT_EQ(captured.use_count(), 1);
    expectNothingUnderWay();
    EXPECT_FALSE(list->isLoadingItems());
    EXPECT_FALSE(list->lastError());

    RunLoop::current().runFor(1.0);
    EXPECT_EQ(called, 0);
    EXPECT_EQ(service->totalRequestCount(), reached) << "requests that waited their turn were sent after all";
    EXPECT_FALSE(store->cachedResource<VXTrack>(text("20005").ptr())) << "a cancelled fetch filled the map";

    // The same calls uncancelled do call back: the control case.
    service->clearFaults();
    store->trackForIdentifier(text("20005").ptr(), true, block(), calls.add());
    store->meIsFollowingUserForIdentifier(text("1002").ptr(), block(), calls.add());
    ASSERT_TRUE(waitFor([&] { return called == 2; }));
    EXPECT_EQ(calls.activeCount(), 0u) << "a token stays active after its call ended";
}

TEST_F(Cancellation, AThousandPendingCallsCancelledSendNothingMore)
{
    holdAnswers(0.5);
    int called = 0;
    SubscriptionSet calls;
    for (int i = 0; i < 1000; ++i)
        store->trackForIdentifier(std::to_string(100000 + i), true, [&](VXTrack*, Error*) { ++called; }, calls.add());
    RunLoop::current().runFor(0.2);
    int reached = service->totalRequestCount();
    EXPECT_LE(reached, static_cast<int>(client().maximumRunningRequests()));
    EXPECT_EQ(calls.activeCount(), 1000u);
    calls.cancel();
    expectNothingUnderWay();
    RunLoop::current().runFor(0.8);
    EXPECT_EQ(service->totalRequestCount(), reached);
    EXPECT_EQ(called, 0);
}

TEST_F(Cancellation, ASharedRequestRunsOnForTheOthersAndStopsWithItsLastCaller)
{
    holdAnswers(0.4, "/tracks/20005");
    Subscription first, second;
    RefPtr<VXTrack> answered;
    bool firstCalled = false;
    store->trackForIdentifier(text("20005").ptr(), true, [&](VXTrack*, Error*) { firstCalled = true; }, &first);
    store->trackForIdentifier(text("20005").ptr(), true, [&](VXTrack* track, Error*) { answered = track; }, &second);
    store->trackForIdentifier(text("20005").ptr(), true, nullptr); // a caller without a token
    EXPECT_EQ(client().runningRequestCount(), 1u);
    first.cancel();
    EXPECT_FALSE(first.isActive());
    EXPECT_EQ(client().runningRequestCount(), 1u);
    ASSERT_TRUE(waitFor([&] { return answered != nullptr; }));
    EXPECT_FALSE(firstCalled);
    EXPECT_EQ(service->requestCount("GET /tracks/20005"), 1);

    // Every caller with a token: the last cancel stops the transfer.
    store->trackForIdentifier(text("20005").ptr(), true, [&](VXTrack*, Error*) { firstCalled = true; }, &first);
    store->trackForIdentifier(text("20005").ptr(), true, [&](VXTrack*, Error*) { firstCalled = true; }, &second);
    RunLoop::current().runFor(0.1);
    first = Subscription();
    EXPECT_EQ(URLLoader::current().runningTaskCount(), 1u);
    second = Subscription();
    expectNothingUnderWay();
    RunLoop::current().runFor(0.5);
    EXPECT_FALSE(firstCalled);
}

TEST_F(Cancellation, TokensAreSafeTwiceFromInsideBlocksAfterTheEndAndWithoutTheStore)
{
    // From inside its own block, and twice.
    Subscription own;
    int calls = 0;
    store->trackForIdentifier(text("20005").ptr(), true, [&](VXTrack* track, Error*) {
        ++calls;
        EXPECT_TRUE(track);
        EXPECT_FALSE(own.isActive()); // the call has ended as its block runs
        own.cancel();
        own.cancel();
    },
        &own);
    ASSERT_TRUE(waitFor([&] { return calls == 1; }));
    own.cancel();

    // One caller of a shared answer cancels the next before it is called.
    holdAnswers(0.2, "/users/1002");
    Subscription next;
    bool nextCalled = false;
    store->userForIdentifier(text("1002").ptr(), true, [&](VXUser*, Error*) { ++calls; next.cancel(); });
    store->userForIdentifier(text("1002").ptr(), true, [&](VXUser*, Error*) { nextCalled = true; }, &next);
    ASSERT_TRUE(waitFor([&] { return calls == 2; }));
    RunLoop::current().runFor(0.1);
    EXPECT_FALSE(nextCalled);

    // A page load whose completion cancels itself, then loads again.
    auto list = store->usersFollowingMe();
    Subscription load;
    int loads = 0;
    list->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false, [&](Error* error) {
        EXPECT_FALSE(error);
        ++loads;
        load.cancel();
        list->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::LoadMore, true, [&](Error*) { ++loads; });
    },
        &load);
    ASSERT_TRUE(waitFor([&] { return loads == 2; }));

    // The store and its controller let go with calls under way: the calls
    // keep what they need and answer; tokens that outlive everything do nothing.
    Subscription orphan;
    bool orphanCalled = false;
    store->trackForIdentifier(text("20006").ptr(), true, [&](VXTrack*, Error*) { orphanCalled = true; }, &orphan);
    VXResourceController::setSharedResourceController(nullptr);
    store = nullptr;
    ASSERT_TRUE(waitFor([&] { return orphanCalled; }));
    orphan.cancel();

    // And cancelled while nothing else holds the store: it goes at once.
    auto api = VXVelvoxAPI::create(service->baseURL(), service->token());
    RefPtr<VXResourceController> doomed = VXResourceController::create(VXAPIController::create(api.get()).ptr());
    doomed->trackForIdentifier(text("20007").ptr(), true, [&](VXTrack*, Error*) { orphanCalled = false; }, &orphan);
    doomed = nullptr; // kept by its call until the token goes
    orphan.cancel();
    RunLoop::current().runFor(0.2);
    EXPECT_TRUE(orphanCalled);
}

TEST_F(Cancellation, ACancelledUploadStopsSending)
{
    // A service that reads the first bytes of an upload and then nothing, so
    // that the upload is surely under way when it is cancelled; it then reads
    // on until the connection ends.
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    std::atomic<bool> started { false }, cancelled { false }, ended { false };
    std::atomic<size_t> received { 0 };
    std::thread reader([&] {
        pollfd accepting { listener, POLLIN, 0 };
        if (poll(&accepting, 1, 5000) != 1)
            return;
        int connection = accept(listener, nullptr, nullptr);
        char buffer[65536];
        auto readSome = [&](int milliseconds) {
            pollfd readable { connection, POLLIN, 0 };
            if (poll(&readable, 1, milliseconds) != 1)
                return false;
            auto count = read(connection, buffer, sizeof buffer);
            if (count <= 0) {
                ended = true;
                return false;
            }
            received += static_cast<size_t>(count);
            return true;
        };
        readSome(5000);
        started = true;
        for (int i = 0; i < 500 && !cancelled; ++i)
            usleep(10000);
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        while (!ended && std::chrono::steady_clock::now() < deadline)
            readSome(100);
        close(connection);
    });

    auto api = VXVelvoxAPI::create("http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)), "token");
    auto uploader = VXResourceController::create(VXAPIController::create(api.get()).ptr());
    constexpr size_t size = 32 * 1024 * 1024;
    bool completed = false;
    Subscription upload;
    uploader->postTrackWithTrackDictionary(uploadOf(size).ptr(), nullptr, [&](Object*, Error*) { completed = true; }, &upload);
    ASSERT_TRUE(waitFor([&] { return started.load(); }));
    upload.cancel();
    cancelled = true;
    EXPECT_EQ(api->runningRequestCount(), 0u);
    reader.join();
    close(listener);
    EXPECT_TRUE(ended) << "the connection stayed open after the upload was cancelled";
    EXPECT_LT(received.load(), size);
    RunLoop::current().runFor(0.1);
    EXPECT_FALSE(completed);
}

TEST_F(Cancellation, APageLoadTellsItsEndOnceAndJoinsARunningLoad)
{
    auto list = store->favoriteTracks();
    list->setPageSize(5);
    std::vector<std::string> heard;
    auto note = [&](std::string who) { return [&heard, who](Error* error) { heard.push_back(who + (error ? " failed" : " in")); }; };
    // A plain load, joined by one that waits for it.
    list->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false);
    list->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::LoadMore, true, note("joined"));
    ASSERT_TRUE(waitFor([&] { return !list->isLoadingItems(); }));
    EXPECT_EQ(heard, std::vector<std::string> { "joined in" });
    EXPECT_EQ(list->items().count(), 5u);
    EXPECT_EQ(list->items<VXTrack>().size(), 5u);
    EXPECT_TRUE(list->items<VXUser>().empty());

    // A failing page: the completion has the error the list keeps.
    sandbox::Fault fault;
    fault.kind = sandbox::Fault::Kind::Status;
    fault.status = 503;
    fault.pathPrefix = "/me/favorites";
    service->addFault(fault);
    RefPtr<Error> failure;
    list->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::LoadMore, true, [&](Error* error) { failure = error; });
    ASSERT_TRUE(waitFor([&] { return failure != nullptr; }));
    EXPECT_EQ(failure->code(), 503);
    EXPECT_EQ(failure.get(), list->lastError());
    EXPECT_EQ(list->items().count(), 5u);

    // A load started by a waiter stops when its waiter cancels; the list can load again.
    service->clearFaults();
    holdAnswers(0.3, "/me/favorites");
    Subscription load;
    list->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::LoadMore, true, note("cancelled"), &load);
    EXPECT_TRUE(list->isLoadingItems());
    load.cancel();
    EXPECT_FALSE(list->isLoadingItems());
    EXPECT_FALSE(list->lastError());
    expectNothingUnderWay();
    service->clearFaults();
    list->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::LoadMore, true, note("again"));
    ASSERT_TRUE(waitFor([&] { return heard.size() == 2; }));
    EXPECT_EQ(heard.back(), "again in");
    EXPECT_EQ(list->items().count(), 10u);
}

TEST_F(Cancellation, CallsFromAnotherThreadRaiseNamingTheCallAndTokensCancelFromAnywhere)
{
    auto list = store->favoriteTracks();
    auto controllerOfStore = store->apiController();
    std::vector<std::string> raised;
    std::thread other([&] {
        auto attempt = [&](const std::function<void()>& call) {
            try {
                call();
                raised.push_back("nothing");
            } catch (const Exception& exception) {
                raised.push_back(exception.name() + ": " + exception.reason().substr(0, exception.reason().find(' ')));
            }
        };
        attempt([&] { store->trackForIdentifier(text("20005").ptr(), true, nullptr); });
        attempt([&] { store->registerTrackPlayedForIdentifier(text("20005").ptr()); });
        attempt([&] { controllerOfStore->meUserRessouce([](VXAPIController*, Object*, Error*) { }); });
        attempt([&] { list->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false); });
        attempt([&] { list->setPageSize(10); });
    });
    other.join();
    EXPECT_EQ(raised, (std::vector<std::string> {
                          "VXWrongThreadException: VXResourceController::trackForIdentifier",
                          "VXWrongThreadException: VXResourceController::registerTrackPlayedForIdentifier",
                          "VXWrongThreadException: VXAPIController::meUserRessouce",
                          "VXWrongThreadException: VXTrackCollectionController::loadMoreItemsForReloadOperationType",
                          "VXWrongThreadException: VXTrackCollectionController::setPageSize",
                      }));
    EXPECT_EQ(controllerOfStore->runningConnections().count(), 0u);
    EXPECT_FALSE(list->isLoadingItems());

    // Tokens destroyed on another thread: the cancellations reach the owner's run loop.
    holdAnswers(0.3);
    bool called = false;
    Subscription fetch, load;
    store->userForIdentifier(text("1002").ptr(), true, [&](VXUser*, Error*) { called = true; }, &fetch);
    list->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false, [&](Error*) { called = true; }, &load);
    std::thread([fetch = std::move(fetch), load = std::move(load)]() mutable {
        fetch.cancel();
        load = Subscription();
    }).join();
    RunLoop::current().runUntilIdle();
    expectNothingUnderWay();
    EXPECT_FALSE(list->isLoadingItems());
    RunLoop::current().runFor(0.5);
    EXPECT_FALSE(called);
}

TEST(HostSetUp, OneCallConnectsAStoreThatTakesTextIdentifiersAndListsTypedItems)
{
    std::string problem;
    EXPECT_FALSE(VXResourceController::connect("ftp://example.invalid", "token", &problem));
    EXPECT_EQ(problem, "The base URL must start with http:// or https://.");

    sandbox::SandboxService service({});
    ASSERT_TRUE(service.start());
    auto store = VXResourceController::connect(service.baseURL(), service.token(), &problem);
    ASSERT_TRUE(store);
    EXPECT_EQ(&VXResourceController::sharedResourceController(), store.get());

    RefPtr<VXTrack> track;
    RefPtr<VXUser> me;
    int32_t following = -2;
    store->meUserForceRefresh(true, [&](VXUser* user, Error*) { me = user; });
    store->trackForIdentifier("20005", false, [&](VXTrack* fetched, Error*) { track = fetched; });
    store->meIsFollowingUserForIdentifier("1003", [&](Number* answer, Error*) { following = answer->intValue(); });
    auto tracks = store->tracksForUserIdentifier("1002");
    RefPtr<Error> failure;
    bool loaded = false;
    tracks->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false, [&](Error* error) {
        failure = error;
        loaded = true;
    });
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return track && me && following != -2 && loaded; }, 10));
    EXPECT_EQ(store->cachedResource<VXTrack>("20005").get(), track.get());
    EXPECT_FALSE(failure);
    auto items = tracks->items<VXTrack>();
    ASSERT_FALSE(items.empty());
    for (auto& item : items)
        EXPECT_EQ(item->userIdentifier()->str(), "1002");
    store->registerTrackPlayedForIdentifier("20005");
    EXPECT_TRUE(store->hasTrackBeenPlayedForTrackIdentifier("20005"));
    VXResourceController::setSharedResourceController(nullptr);
}
