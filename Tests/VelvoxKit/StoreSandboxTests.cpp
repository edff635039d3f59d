// The resource store as a host uses it: against the sandbox over loopback, and
// across processes that share one data folder.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXResourceController.h>

#include <Catalogue.h>
#include <StoreFixture.h>

#include <csignal>
#include <filesystem>
#include <poll.h>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

using namespace velvox;
using velvox::test::ScopedEnvironment;
using velvox::test::TemporaryFolder;

namespace {

class StoreOnSandbox : public test::SandboxStoreFixture { };

Ref<String> text(std::string_view value) { return String::create(value); }

test::Outcome runHelper(const std::string& arguments, const std::string& dataHome)
{
    return test::run("XDG_DATA_HOME='" + dataHome + "' " STORE_HELPER " " + arguments, true);
}

} // namespace

TEST_F(StoreOnSandbox, FetchesTheMeUserUsersTracksAndTheirEmbeddedUsers)
{
    RefPtr<VXUser> me;
    bool done = false;
    store->meUserForceRefresh(false, [&](VXUser* user, Error*) { me = user; done = true; });
    ASSERT_TRUE(waitFor([&] { return done; }));
    ASSERT_TRUE(me);
    EXPECT_EQ(store->meUserIdentifier()->str(), std::to_string(service->meUserIdentifier()));
    EXPECT_TRUE(me->hasFullUserRepresentation());

    RefPtr<VXTrack> track;
    done = false;
    EXPECT_FALSE(store->trackForIdentifier(text("20005").ptr(), false, [&](VXTrack* fetched, Error*) { track = fetched; done = true; }));
    ASSERT_TRUE(waitFor([&] { return done; }));
    ASSERT_TRUE(track);
    auto owner = store->cachedResource<VXUser>(track->userIdentifier());
    ASSERT_TRUE(owner); // the embedded user came with the track
    EXPECT_FALSE(owner->hasFullUserRepresentation());
    EXPECT_EQ(track->user().get(), owner.get());

    RefPtr<VXUser> full;
    done = false;
    store->userForIdentifier(track->userIdentifier(), true, [&](VXUser* fetched, Error*) { full = fetched; done = true; });
    ASSERT_TRUE(waitFor([&] { return done; }));
    EXPECT_EQ(full.get(), owner.get());
    EXPECT_TRUE(owner->hasFullUserRepresentation());

    // A comment is fetched on the track path, as the interface says.
    service->resetRequestCounts();
    RefPtr<Error> failure;
    done = false;
    store->commentForIdentifier(text("999999").ptr(), false, [&](VXComment*, Error* error) { failure = error; done = true; });
    ASSERT_TRUE(waitFor([&] { return done; }));
    EXPECT_EQ(service->requestCount("GET /tracks/999999"), 1);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code(), 404);
}

TEST_F(StoreOnSandbox, AnUploadedTrackIsPolledFromStoringToFinished)
{
    auto upload = Dictionary::create({
        { "track[title]", String::create("Polled").ptr() },
        { "track[asset_data]", Data::create(std::string(2000, 'a')).ptr() },
    });
    RefPtr<Dictionary> created;
    store->apiController()->postTrack(upload.ptr(), nullptr, [&](VXAPIController*, Object* json, Error*) {
        created = dynamicDowncast<Dictionary>(json);
    });
    ASSERT_TRUE(waitFor([&] { return static_cast<bool>(created); }));
    auto identifier = created->objectForKey("id")->description();
    RefPtr<VXTrack> track;
    store->trackForIdentifier(identifier.ptr(), false, [&](VXTrack* fetched, Error*) { track = fetched; });
    ASSERT_TRUE(waitFor([&] { return static_cast<bool>(track); }));
    EXPECT_EQ(track->state(), VXTrackStateStoring);
    std::vector<int32_t> states;
    auto observation = track->addObserver("state", [&](ZUObject&, const String&) { states.push_back(track->state()); });
    // The store looks again after 2 s, by itself, until the service has finished.
    ASSERT_TRUE(waitFor([&] { return track->state() == VXTrackStateFinished; }, 10));
    EXPECT_EQ(states, std::vector<int32_t> { VXTrackStateFinished });
    EXPECT_EQ(service->requestCount("GET /tracks/" + identifier->str()), 2);
    RunLoop::current().runFor(0.1);
    EXPECT_EQ(store->resourceCacheStatistics().pendingTrackRefreshes, 0u);
}

TEST_F(StoreOnSandbox, FollowChecksReachTheUsersFlags)
{
    bool done = false;
    store->meUserForceRefresh(true, [&](VXUser*, Error*) { done = true; });
    ASSERT_TRUE(waitFor([&] { return done; }));
    RefPtr<VXUser> other;
    store->userForIdentifier(text("1009").ptr(), false, [&](VXUser* user, Error*) { other = user; });
    ASSERT_TRUE(waitFor([&] { return static_cast<bool>(other); }));

    EXPECT_EQ(other->isFollowedByMe(), -2);
    ASSERT_TRUE(waitFor([&] { return other->isFollowedByMe() != -2; }));
    int32_t before = other->isFollowedByMe();
    ASSERT_TRUE(before == 0 || before == 1);

    int announcements = 0;
    auto observation = other->addObserver("followedByMe", [&](ZUObject&, const String&) { ++announcements; });
    other->setFollowedByMe(before ? 0 : 1);
    ASSERT_TRUE(waitFor([&] { return other->isFollowedByMe() != before; }));
    EXPECT_EQ(announcements, 1);
    // The service agrees when asked again.
    EXPECT_EQ(other->isFollowedByMe(true), -2);
    ASSERT_TRUE(waitFor([&] { return other->isFollowedByMe() != -2; }));
    EXPECT_EQ(other->isFollowedByMe(), before ? 0 : 1);
    other->setFollowedByMe(before);
    ASSERT_TRUE(waitFor([&] { return other->isFollowedByMe() == before; }));

    EXPECT_EQ(other->isFollowingMe(true), -2);
    ASSERT_TRUE(waitFor([&] { return other->isFollowingMe() != -2; }));
    EXPECT_TRUE(other->isFollowingMe() == 0 || other->isFollowingMe() == 1);
}

TEST_F(StoreOnSandbox, TwoRunsShareTheIdentityMapAndThePlayedTracks)
{
    TemporaryFolder shared;
    std::filesystem::create_directories(shared.path() + "/Velvox");
    auto first = runHelper("session " + service->baseURL() + " " + service->token(), shared.path());
    ASSERT_EQ(first.status, 0) << first.output;
    EXPECT_NE(first.output.find("played 20003"), std::string::npos) << first.output;
    auto second = runHelper("report", shared.path() + "' STORE_ME='" + std::to_string(service->meUserIdentifier()));
    EXPECT_EQ(second.status, 0) << second.output;
    EXPECT_NE(second.output.find("VXTrack 1"), std::string::npos) << second.output;
    EXPECT_NE(second.output.find("played 20003"), std::string::npos) << second.output;
}

TEST(StoreArchives, AKilledSaveLeavesTheOldOrTheNewStateNeverAWreck)
{
    TemporaryFolder shared;
    std::filesystem::create_directories(shared.path() + "/Velvox");
    ScopedEnvironment dataHome("XDG_DATA_HOME", shared.path());
    std::mt19937 random(20261122);
    // Kills land anywhere in the saves after the first, however long the
    // helper takes to start (several times longer under the sanitizers).
    std::uniform_int_distribution<int> delay(0, 40000);
    int checked = 0;
    for (int attempt = 0; attempt < 100; ++attempt) {
        int output = -1;
        pid_t child = test::spawnWithOutput({ STORE_HELPER, "save-loop" }, output);
        ASSERT_GT(child, 0);
        pollfd firstSave { output, POLLIN, 0 };
        EXPECT_EQ(poll(&firstSave, 1, 20000), 1) << "no save within 20 s";
        usleep(delay(random));
        kill(child, SIGKILL);
        close(output);
        int status = 0;
        waitpid(child, &status, 0);

        auto store = VXResourceController::create();
        auto statistics = store->resourceCacheStatistics();
        // One whole version: the one before the kill or the one it interrupted.
        size_t count = statistics.objectCount;
        EXPECT_TRUE(count == 250 || count == 400) << "attempt " << attempt << ": " << count;
        if (count) {
            auto track = store->cachedResource<VXTrack>(String::create("0").ptr());
            ASSERT_TRUE(track);
            std::string title = track->title()->str();
            int version = std::atoi(title.substr(title.rfind(' ') + 1).c_str());
            EXPECT_EQ(count, version % 2 ? 400u : 250u) << title;
            ++checked;
        }
        EXPECT_FALSE(std::filesystem::exists(shared.path() + "/Velvox/ressources.archive.corrupt")) << "attempt " << attempt;
        store->setMeUserIdentifier(String::create("4242").ptr());
    }
    EXPECT_EQ(checked, 100);
}
