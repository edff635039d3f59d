// Changes made while the service cannot be reached: written to the journal
// before they are sent, shown at once, and sent in order, each once, when
// the service answers again, at the next start, or after a killed run.
// Against the sandbox on loopback (stopped and started again on its port).

#include <VelvoxKit/VXKit.h>
#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXArchiveStore.h>
#include <VelvoxKit/VXResourceController.h>

#include <StoreFixture.h>
#include <TestServer.h>

#include <filesystem>
#include <fstream>
#include <poll.h>
#include <random>
#include <set>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace velvox;

namespace {

class OfflineChanges : public test::SandboxStoreFixture {
protected:
    void SetUp() override
    {
        SandboxStoreFixture::SetUp();
        options.offlineChanges = true;
        offline = makeStore();
    }
    RefPtr<VXResourceController> makeStore()
    {
        auto made = VXResourceController::connect(service->baseURL(), service->token(), options);
        EXPECT_TRUE(made);
        made->apiController()->api()->setTimeout(2);
        return made;
    }
    // The service goes away, and comes back on the same address with its catalogue.
    void stopService()
    {
        port = service->port();
        service->stop();
    }
    void startService()
    {
        sandbox::SandboxService::Options serviceOptions;
        serviceOptions.port = port;
        service = std::make_unique<sandbox::SandboxService>(serviceOptions);
        ASSERT_TRUE(service->start());
    }
    bool sent(VXResourceController& store) { return waitFor([&] { return store.queuedChangeCount() == 0; }); }
    static bool isQueued(Error* error) { return error && error->domain()->isEqualToString(VXQueuedChangeErrorDomain) && error->code() == VXQueuedChangeErrorQueued; }
    // A GET straight to the service, past the store: its status and decoded body.
    std::pair<long, RefPtr<Object>> fetch(const std::string& path)
    {
        URLRequest request;
        request.url = service->baseURL() + path;
        request.headers = { { "Authorization", "OAuth " + service->token() } };
        std::pair<long, RefPtr<Object>> got { -1, nullptr };
        bool done = false;
        URLTaskCallbacks callbacks;
        callbacks.didComplete = [&](URLResponse* response, Error*) {
            if (response)
                got = { response->statusCode(), JSONObject(response->body()) };
            done = true;
        };
        auto task = URLLoader::current().start(request, std::move(callbacks));
        EXPECT_TRUE(waitFor([&] { return done; }));
        return got;
    }
    long fetchStatus(const std::string& path) { return fetch(path).first; }
    // The texts of the track's comments on the service, as often as each appears.
    std::multiset<std::string> commentsOnService(std::string_view track)
    {
        std::multiset<std::string> texts;
        for (int offset = 0;; offset += 200) {
            auto decoded = fetch("/tracks/" + std::string(track) + "/comments?limit=200&offset=" + std::to_string(offset)).second;
            auto* page = dynamicDowncast<Array>(decoded.get());
            if (!page)
                return texts;
            for (auto* comment : *page) {
                auto* record = dynamicDowncast<Dictionary>(comment);
                auto* text = record ? record->objectForKey<String>("body") : nullptr;
                texts.insert(text ? text->str() : std::string());
            }
            if (page->count() < 200)
                return texts;
        }
    }
    bool isFavoriteOnService(int64_t track)
    {
        auto decoded = fetch("/me/favorites?limit=200").second;
        if (auto* page = dynamicDowncast<Array>(decoded.get())) {
            for (auto* record : *page) {
                auto* fields = dynamicDowncast<Dictionary>(record);
                auto* identifier = fields ? fields->objectForKey<Number>("id") : nullptr;
                if (identifier && identifier->longLongValue() == track)
                    return true;
            }
        }
        return false;
    }

    VXResourceController::Options options;
    RefPtr<VXResourceController> offline;
    int port { 0 };
};

} // namespace

TEST_F(OfflineChanges, ChangesMadeWhileTheServiceIsDownAreShownKeptAndSentInOrderOnce)
{
    RefPtr<VXUser> user;
    offline->userForIdentifier("1003", true, [&](VXUser* answer, Error*) { user = answer; });
    ASSERT_TRUE(waitFor([&] { return user != nullptr; }));
    int heardCount = 0;
    auto counting = offline->addObserver("queuedChangeCount", [&](ZUObject&, const String&) { ++heardCount; });
    stopService();

    std::vector<RefPtr<Error>> told;
    auto tell = [&](Object*, Error* error) { told.emplace_back(error); };
    // Quick opposite changes, and a comment, all while nothing answers.
    offline->startFollowingUserForIdentifier(String::create("1003").ptr(), tell);
    EXPECT_EQ(user->followedByMeValue(), 1) << "shown at once";
    offline->stopFollowingByUserForIdentifier(String::create("1003").ptr(), tell);
    offline->startFollowingUserForIdentifier(String::create("1003").ptr(), tell);
    offline->postCommentWithTrackIdentifier(String::create("20005").ptr(), String::create("said offline").ptr(), 7.5,
        [&](VXComment*, Error* error) { told.emplace_back(error); });
    ASSERT_TRUE(waitFor([&] { return told.size() == 4; }));
    for (auto& error : told)
        EXPECT_TRUE(isQueued(error.get())) << (error ? error->localizedDescription()->str() : "no error");
    EXPECT_EQ(offline->queuedChangeCount(), 4u);
    EXPECT_GE(heardCount, 4);
    EXPECT_EQ(user->followedByMeValue(), 1);
    int32_t checked = -2;
    offline->meIsFollowingUserForIdentifier(String::create("1003").ptr(), [&](Number* value, Error*) { checked = value ? value->intValue() : -9; });
    ASSERT_TRUE(waitFor([&] { return checked != -2; }));
    EXPECT_EQ(checked, 1) << "a follow check answers what waits";

    // Kept privately on disk at once.
    struct stat info { };
    ASSERT_EQ(stat(VXArchiveStore::changesPath().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    // The service answers again: everything goes, in order, once.
    startService();
    offline->meUserForceRefresh(true, nullptr);
    ASSERT_TRUE(sent(*offline));
    EXPECT_EQ(service->requestCount("PUT /me/followings/1003"), 2);
    EXPECT_EQ(service->requestCount("DELETE /me/followings/1003"), 1);
    EXPECT_EQ(fetchStatus("/me/followings/1003"), 200);
    EXPECT_EQ(commentsOnService("20005").count("said offline"), 1u);
    EXPECT_EQ(user->followedByMeValue(), 1);
    EXPECT_FALSE(std::filesystem::exists(VXArchiveStore::changesPath())) << "an empty journal leaves no file";
}

TEST_F(OfflineChanges, WhatWaitsIsSentAtTheNextStartAndTenQuickTogglesEndAgreeing)
{
    stopService();
    for (int toggle = 0; toggle < 10; ++toggle) {
        if (toggle % 2)
            offline->stopFollowingByUserForIdentifier(String::create("1004").ptr(), nullptr);
        else
            offline->startFollowingUserForIdentifier(String::create("1004").ptr(), nullptr);
    }
    offline->favoriteTrackForIdentifier(String::create("20006").ptr(), nullptr);
    RunLoop::current().runFor(0.2);
    EXPECT_EQ(offline->queuedChangeCount(), 11u);
    // The run ends; the next one starts with the service back.
    offline = nullptr;
    VXResourceController::setSharedResourceController(nullptr);
    startService();
    auto next = makeStore();
    EXPECT_EQ(next->queuedChangeCount(), 11u);
    ASSERT_TRUE(sent(*next));
    EXPECT_EQ(fetchStatus("/me/followings/1004"), 404) << "ten toggles from not following end not following";
    EXPECT_TRUE(isFavoriteOnService(20006));
    int32_t checked = -2;
    next->meIsFollowingUserForIdentifier(String::create("1004").ptr(), [&](Number* value, Error*) { checked = value ? value->intValue() : -9; });
    ASSERT_TRUE(waitFor([&] { return checked != -2; }));
    EXPECT_EQ(checked, 0);
}

TEST_F(OfflineChanges, ACommentWhoseAnswerWasLostIsLookedForNotSentAgain)
{
    // The service takes the comment but answers after the client gave up.
    service->addFault({ sandbox::Fault::Kind::Latency, "/tracks/20005/comments", 0, 1.0, 1 });
    offline->apiController()->api()->setTimeout(0.3);
    RefPtr<Error> told;
    bool answered = false;
    offline->postCommentWithTrackIdentifier(String::create("20005").ptr(), String::create("answer lost").ptr(), [&](VXComment*, Error* error) {
        told = error;
        answered = true;
    });
    ASSERT_TRUE(waitFor([&] { return answered; }));
    EXPECT_TRUE(isQueued(told.get()));
    ASSERT_EQ(offline->queuedChangeCount(), 1u);
    EXPECT_TRUE(offline->queuedChanges()[0].attempted);
    // Once the service has it, the journal finds it there.
    ASSERT_TRUE(waitFor([&] { return commentsOnService("20005").count("answer lost") == 1; }, 5));
    offline->sendQueuedChanges();
    ASSERT_TRUE(sent(*offline));
    EXPECT_EQ(service->requestCount("POST /tracks/20005/comments"), 1);
    EXPECT_EQ(commentsOnService("20005").count("answer lost"), 1u);

    // The control: a comment that never reached the service is sent.
    offline->apiController()->api()->setTimeout(0.5);
    service->addFault({ sandbox::Fault::Kind::Drop, "/tracks/20005/comments", 0, 0, 1 });
    offline->postCommentWithTrackIdentifier(String::create("20005").ptr(), String::create("answer dropped").ptr(), nullptr);
    ASSERT_TRUE(waitFor([&] { return offline->queuedChangeCount() == 1 && offline->queuedChanges()[0].attempted; }));
    offline->sendQueuedChanges();
    ASSERT_TRUE(sent(*offline));
    EXPECT_EQ(commentsOnService("20005").count("answer dropped"), 1u);
}

TEST_F(OfflineChanges, RefusedChangesAreDroppedUndoneAndSaidAndPassingFailuresWait)
{
    RefPtr<VXTrack> track;
    offline->trackForIdentifier("20006", true, [&](VXTrack* answer, Error*) { track = answer; });
    ASSERT_TRUE(waitFor([&] { return track != nullptr; }));
    bool before = track->userFavorite();

    // Refused: the caller hears the service, the model goes back, nothing is sent again.
    service->addFault({ sandbox::Fault::Kind::Status, "/me/favorites/20006", 422, 0, 1 });
    // Favorites the track; the first answer its caller hears.
    RefPtr<Error> told;
    bool answered = false;
    auto favorite = [&] {
        answered = false;
        offline->favoriteTrackForIdentifier(String::create("20006").ptr(), [&](Object*, Error* error) {
            told = error;
            answered = true;
        });
    };
    favorite();
    EXPECT_EQ(track->userFavorite(), !before) << "shown at once";
    ASSERT_TRUE(waitFor([&] { return answered; }));
    ASSERT_TRUE(told);
    EXPECT_EQ(told->code(), 422);
    EXPECT_EQ(track->userFavorite(), before);
    EXPECT_FALSE(offline->lastQueuedChangeError()) << "its caller heard it";
    EXPECT_EQ(offline->queuedChangeCount(), 0u);
    offline->sendQueuedChanges();
    RunLoop::current().runFor(0.1);
    EXPECT_EQ(service->requestCount("PUT /me/favorites/20006"), 1);

    // Refused once it waited: nobody listens any more, so the store keeps the error.
    service->addFault({ sandbox::Fault::Kind::Status, "/me/favorites/20006", 503, 0, 1 });
    service->addFault({ sandbox::Fault::Kind::Status, "/me/favorites/20006", 422, 0, 1 });
    favorite();
    ASSERT_TRUE(waitFor([&] { return answered; }));
    EXPECT_TRUE(isQueued(told.get()));
    EXPECT_EQ(track->userFavorite(), !before);
    offline->sendQueuedChanges();
    ASSERT_TRUE(sent(*offline));
    ASSERT_TRUE(offline->lastQueuedChangeError());
    EXPECT_EQ(offline->lastQueuedChangeError()->code(), VXQueuedChangeErrorRefused);
    EXPECT_EQ(track->userFavorite(), before) << "undone";

    // 503 twice: the change waits and goes when asked again.
    service->addFault({ sandbox::Fault::Kind::Status, "/me/favorites/20006", 503, 0, 2 });
    favorite();
    ASSERT_TRUE(waitFor([&] { return answered; }));
    EXPECT_TRUE(isQueued(told.get()));
    for (int ask = 0; ask < 3 && offline->queuedChangeCount(); ++ask) {
        offline->sendQueuedChanges();
        waitFor([&] { return offline->queuedChangeCount() == 0; }, 0.5);
    }
    EXPECT_EQ(offline->queuedChangeCount(), 0u);
    EXPECT_TRUE(isFavoriteOnService(20006));
    EXPECT_TRUE(track->userFavorite());
}

TEST(OfflineChangeJournal, ACraftedOrTruncatedJournalReadsAsEmptyAndTheArchivesStay)
{
    test::TemporaryFolder data;
    test::ScopedEnvironment dataHome("XDG_DATA_HOME", data.path());
    std::filesystem::create_directories(data.path() + "/Velvox");
    VXChangeJournal written(VXArchiveStore::changesPath());
    VXChangeJournal::Entry follow(VXChangeJournal::Kind::Follow, "1003");
    follow.account = "a";
    VXChangeJournal::Entry comment(VXChangeJournal::Kind::Comment, "20005");
    comment.account = "a";
    comment.body = "kept";
    comment.timestamp = 7500;
    written.append(follow);
    written.append(comment);
    ASSERT_FALSE(written.save());
    VXChangeJournal read(VXArchiveStore::changesPath());
    read.load();
    ASSERT_EQ(read.entries().size(), 2u) << "the control reads back whole";
    EXPECT_EQ(read.entries()[1].body, "kept");
    EXPECT_EQ(read.entries()[1].timestamp, 7500);

    // The identity map beside it must survive whatever the journal holds.
    {
        auto store = VXResourceController::create();
        store->trackWithTrackDictionary(Dictionary::create({ { "id", Number::create(7).ptr() }, { "title", String::create("kept").ptr() } }).ptr());
        ASSERT_FALSE(store->save());
    }
    std::string whole;
    {
        std::ifstream file(VXArchiveStore::changesPath(), std::ios::binary);
        whole.assign(std::istreambuf_iterator<char>(file), {});
    }
    for (std::string crafted : { whole.substr(0, whole.size() / 2), std::string("garbage"), std::string(), whole.substr(0, 40) + std::string(5000, '\xff') }) {
        FileManager::writeFileAtomically(VXArchiveStore::changesPath(), crafted);
        VXChangeJournal damaged(VXArchiveStore::changesPath());
        damaged.load();
        EXPECT_TRUE(damaged.empty());
        auto store = VXResourceController::create();
        EXPECT_TRUE(store->cachedResource<VXTrack>("7"));
    }
    // Records of the wrong kinds or types are dropped, the good ones kept.
    auto records = Array::create({ Dictionary::create({ { "kind", String::create("explode").ptr() } }).ptr(), String::create("x").ptr(),
        Dictionary::create({ { "kind", String::create("follow").ptr() }, { "target", Number::create(5).ptr() } }).ptr() });
    ASSERT_FALSE(VXArchiveStore::write(records.ptr(), VXArchiveStore::changesPath(), VXArchiveStore::Folder::AsItIs));
    VXChangeJournal odd(VXArchiveStore::changesPath());
    odd.load();
    EXPECT_TRUE(odd.empty());
}

// Runs of a program that makes a comment through the journal and sends what
// waits, killed at random moments while the service drops or holds some of
// its requests: every comment a run made is on the service exactly once, and
// none ever twice.
TEST_F(OfflineChanges, KilledRunsLeaveEveryCommentOnTheServiceExactlyOnce)
{
    std::mt19937 random(20261124);
    std::uniform_int_distribution<int> delay(0, 150000);
    std::set<int> made;
    auto runHelper = [&](const std::string& number, bool kill) {
        int output = -1;
        pid_t child = test::spawnWithOutput({ STORE_HELPER, "comment", service->baseURL(), service->token(), number }, output);
        EXPECT_GT(child, 0);
        if (kill) {
            usleep(delay(random));
            ::kill(child, SIGKILL);
        }
        std::string printed;
        char buffer[256];
        for (ssize_t n; (n = read(output, buffer, sizeof buffer)) > 0;)
            printed.append(buffer, n);
        close(output);
        int status = 0;
        waitpid(child, &status, 0);
        if (printed.find("made " + number + "\n") != std::string::npos)
            made.insert(std::stoi(number));
    };
    std::uniform_int_distribution<int> faultKind(0, 3);
    for (int run = 0; run < 100; ++run) {
        switch (faultKind(random)) {
        case 0:
            service->addFault({ sandbox::Fault::Kind::Drop, "/tracks/20005/comments", 0, 0, 1 });
            break;
        case 1:
            service->addFault({ sandbox::Fault::Kind::NoAnswer, "/tracks/20005/comments", 0, 0, 1 });
            break;
        case 2:
            service->addFault({ sandbox::Fault::Kind::Latency, "/tracks/20005/comments", 0, 0.5, 1 });
            break;
        default:
            break;
        }
        runHelper(std::to_string(run), true);
        service->clearFaults();
    }
    // A last run that is let finish sends whatever still waits.
    runHelper("", false);
    auto comments = commentsOnService("20005");
    int onService = 0;
    for (int run = 0; run < 100; ++run) {
        size_t count = comments.count("note " + std::to_string(run));
        EXPECT_LE(count, 1u) << "note " << run << " twice";
        if (made.count(run)) {
            EXPECT_EQ(count, 1u) << "note " << run << " was made but is not on the service";
        }
        onService += static_cast<int>(count);
    }
    EXPECT_GE(onService, static_cast<int>(made.size()));
    EXPECT_GT(made.size(), 20u) << "too few runs got as far as making their comment";
}
