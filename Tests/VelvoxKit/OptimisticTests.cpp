// Optimistic follow and favorite changes against the sandbox: what observers
// hear, what a failure rolls back, and quick opposite changes that must end
// with the model and the service agreeing.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXResourceController.h>

#include <StoreFixture.h>

using namespace velvox;

namespace {

class Optimistic : public test::SandboxStoreFixture {
protected:
    void SetUp() override
    {
        SandboxStoreFixture::SetUp();
        VXResourceController::Options options;
        options.optimisticChanges = true;
        store->setOptions(options);
        user = fetchUser("1003");
    }
    RefPtr<VXUser> fetchUser(std::string_view identifier)
    {
        RefPtr<VXUser> fetched;
        store->userForIdentifier(identifier, true, [&](VXUser* answer, Error*) { fetched = answer; });
        EXPECT_TRUE(waitFor([&] { return fetched != nullptr; }));
        return fetched;
    }
    // What the service says now, asked with no change under way.
    int32_t serviceFollows(std::string_view identifier)
    {
        EXPECT_EQ(store->pendingChangeCount(), 0u);
        int32_t answer = -2;
        store->meIsFollowingUserForIdentifier(identifier, [&](Number* result, Error*) { answer = result->intValue(); });
        EXPECT_TRUE(waitFor([&] { return answer != -2; }));
        return answer;
    }
    void slowDown(const std::string& path, double seconds = 0.3)
    {
        sandbox::Fault fault;
        fault.pathPrefix = path;
        fault.seconds = seconds;
        service->addFault(fault);
    }

    RefPtr<VXUser> user;
};

} // namespace

TEST_F(Optimistic, AFollowShowsAtOnceAndChecksAnswerItWhileItIsUnderWay)
{
    ASSERT_TRUE(user);
    int announced = 0;
    auto observation = user->addObserver("followedByMe", [&](ZUObject&, const String&) { ++announced; });
    slowDown("/me/followings");
    bool done = false;
    RefPtr<Error> failure;
    store->startFollowingUserForIdentifier("1003", [&](Object*, Error* error) {
        failure = error;
        done = true;
    });
    EXPECT_EQ(user->followedByMeValue(), 1);
    EXPECT_EQ(announced, 1);

    int32_t checked = -2;
    EXPECT_EQ(store->meIsFollowingUserForIdentifier("1003", [&](Number* result, Error*) { checked = result->intValue(); }), -2);
    ASSERT_TRUE(waitFor([&] { return checked != -2; }));
    EXPECT_EQ(checked, 1);
    EXPECT_EQ(service->requestCount("GET /me/followings/1003"), 0) << "the check asked the service while the change was under way";

    ASSERT_TRUE(waitFor([&] { return done; }));
    EXPECT_FALSE(failure);
    EXPECT_EQ(announced, 1) << "the service's agreement is announced again";
    service->clearFaults();
    EXPECT_EQ(serviceFollows("1003"), 1);
}

TEST_F(Optimistic, AFailedChangeRollsBackWithOneMoreAnnouncementAndTheError)
{
    ASSERT_TRUE(user);
    int32_t before = user->followedByMeValue();
    std::vector<int32_t> heard;
    auto observation = user->addObserver("followedByMe", [&](ZUObject& object, const String&) { heard.push_back(downcast<VXUser>(object).followedByMeValue()); });
    sandbox::Fault refused;
    refused.kind = sandbox::Fault::Kind::Status;
    refused.status = 503;
    refused.pathPrefix = "/me/followings";
    service->addFault(refused);
    RefPtr<Error> failure;
    store->startFollowingUserForIdentifier("1003", [&](Object*, Error* error) { failure = error; });
    ASSERT_TRUE(waitFor([&] { return failure != nullptr; }));
    EXPECT_EQ(failure->code(), 503);
    EXPECT_EQ(heard, (std::vector<int32_t> { 1, before }));
    EXPECT_EQ(user->followedByMeValue(), before);

    // Favorites likewise, on the track's "userFavorite".
    RefPtr<VXTrack> track;
    store->trackForIdentifier("20005", true, [&](VXTrack* fetched, Error*) { track = fetched; });
    ASSERT_TRUE(waitFor([&] { return track != nullptr; }));
    refused.pathPrefix = "/me/favorites";
    service->addFault(refused);
    int favoriteAnnouncements = 0;
    auto favoriteObservation = track->addObserver("userFavorite", [&](ZUObject&, const String&) { ++favoriteAnnouncements; });
    failure = nullptr;
    store->favoriteTrackForIdentifier("20005", [&](Object*, Error* error) { failure = error; });
    EXPECT_TRUE(track->userFavorite());
    ASSERT_TRUE(waitFor([&] { return failure != nullptr; }));
    EXPECT_FALSE(track->userFavorite());
    EXPECT_EQ(favoriteAnnouncements, 2);
}

TEST_F(Optimistic, QuickOppositeChangesEndInTheLastOnesStateOnTheServiceAndInTheModel)
{
    ASSERT_TRUE(user);
    slowDown("/me/followings", 0.1);
    int answered = 0;
    for (int i = 0; i < 10; ++i) {
        auto count = [&](Object*, Error* error) {
            EXPECT_FALSE(error);
            ++answered;
        };
        if (i % 2 == 0)
            store->startFollowingUserForIdentifier("1003", count);
        else
            store->stopFollowingByUserForIdentifier("1003", count);
    }
    EXPECT_EQ(user->followedByMeValue(), 0);
    ASSERT_TRUE(waitFor([&] { return answered == 10; }));
    EXPECT_EQ(user->followedByMeValue(), 0);
    // One change at a time, and only what the latest wish needed.
    EXPECT_LE(service->requestCount("PUT /me/followings/1003") + service->requestCount("DELETE /me/followings/1003"), 2);
    service->clearFaults();
    EXPECT_EQ(serviceFollows("1003"), 0);

    // And ending on a follow.
    for (int i = 0; i < 5; ++i) {
        store->stopFollowingByUserForIdentifier("1003", nullptr);
        store->startFollowingUserForIdentifier("1003", nullptr);
    }
    EXPECT_TRUE(waitFor([&] { return store->pendingChangeCount() == 0; }));
    EXPECT_EQ(user->followedByMeValue(), 1);
    EXPECT_EQ(serviceFollows("1003"), 1);
}

TEST_F(Optimistic, WithoutTheOptionAFavoriteShowsOnlyOnceTheServiceAgrees)
{
    store->setOptions({});
    RefPtr<VXTrack> track;
    store->trackForIdentifier("20006", true, [&](VXTrack* fetched, Error*) { track = fetched; });
    ASSERT_TRUE(waitFor([&] { return track != nullptr; }));
    bool done = false;
    store->favoriteTrackForIdentifier("20006", [&](Object*, Error* error) {
        EXPECT_FALSE(error);
        done = true;
    });
    EXPECT_FALSE(track->userFavorite());
    EXPECT_EQ(store->pendingChangeCount(), 0u);
    ASSERT_TRUE(waitFor([&] { return done; }));
    EXPECT_TRUE(track->userFavorite());
    EXPECT_EQ(service->requestCount("PUT /me/favorites/20006"), 1);
}
