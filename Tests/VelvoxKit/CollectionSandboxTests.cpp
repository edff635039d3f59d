// The collections, the social graph, uploads and comments as a host uses
// them, against the sandbox over loopback.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXActivity.h>
#include <VelvoxKit/VXResourceController.h>

#include <Catalogue.h>
#include <StoreFixture.h>

#include <set>

using namespace velvox;
using velvox::test::ScopedEnvironment;
using velvox::test::TemporaryFolder;
using Operation = ZURemoteCollectionReloadOperationType;

namespace {

class CollectionsOnSandbox : public test::SandboxStoreFixture {
protected:
    void SetUp() override
    {
        SandboxStoreFixture::SetUp();
        bool done = false;
        store->meUserForceRefresh(true, [&](VXUser* user, Error*) { me = user; done = true; });
        ASSERT_TRUE(RunLoop::current().runUntil([&] { return done; }, 10));
        ASSERT_TRUE(me);
    }
    // Loads one page and waits for it.
    static bool loadPage(VXRemoteCollectionController& collection, Operation operation = Operation::LoadMore, bool forEnd = true)
    {
        collection.loadMoreItemsForReloadOperationType(operation, forEnd);
        return RunLoop::current().runUntil([&] { return !collection.isLoadingItems(); }, 10);
    }
    // Pages to the end; answers the identifiers in order.
    static std::vector<std::string> pageToTheEnd(VXRemoteCollectionController& collection, size_t pageSize = 7)
    {
        if (!is<VXCursorCollectionController>(collection))
            collection.setPageSize(pageSize);
        EXPECT_TRUE(loadPage(collection, Operation::Reload, false));
        for (int pages = 0; collection.hasMoreItems() && pages < 100; ++pages)
            EXPECT_TRUE(loadPage(collection));
        EXPECT_FALSE(collection.lastError());
        std::vector<std::string> identifiers;
        for (auto* item : collection.items()) {
            if (auto* resource = dynamicDowncast<VXResource>(item))
                identifiers.push_back(resource->resourceIdentifier()->str());
            else if (auto* activity = dynamicDowncast<VXActivity>(item))
                identifiers.push_back(activity->track() ? activity->track()->resourceIdentifier()->str() : "-");
        }
        return identifiers;
    }
    template<typename T>
    static std::vector<std::string> pageToTheEnd(Ref<T> collection, size_t pageSize = 7)
    {
        return pageToTheEnd(static_cast<VXRemoteCollectionController&>(*collection.ptr()), pageSize);
    }
    static void expectNoRepeats(const std::vector<std::string>& identifiers)
    {
        std::set<std::string> unique(identifiers.begin(), identifiers.end());
        EXPECT_EQ(unique.size(), identifiers.size());
    }

    RefPtr<VXUser> me;
};

} // namespace

TEST_F(CollectionsOnSandbox, EveryListPagesToItsEndWithNothingMissingOrRepeated)
{
    auto tracks = store->tracksForUserIdentifier(me->resourceIdentifier());
    auto identifiers = pageToTheEnd(tracks);
    EXPECT_EQ(identifiers.size(), me->trackCount());
    expectNoRepeats(identifiers);
    // The same list in one page agrees.
    auto whole = store->meUserTracks();
    whole->setPageSize(50);
    ASSERT_TRUE(loadPage(whole, Operation::Reload, false));
    EXPECT_EQ(whole->items().count(), identifiers.size());

    EXPECT_EQ(pageToTheEnd(store->favoriteTracks()).size(), me->publicFavoritesCount());
    EXPECT_EQ(pageToTheEnd(store->usersFollowingMe()).size(), me->followersCount());
    EXPECT_EQ(pageToTheEnd(store->usersFollowedByMe()).size(), me->followingsCount());
    auto other = store->usersFollowedByUserForIdentifier(String::create("1004").ptr());
    expectNoRepeats(pageToTheEnd(other, 3));

    // The cursor feed of the dashboard, 7 activities a page.
    auto feed = store->incomingActivities();
    auto activities = pageToTheEnd(feed);
    EXPECT_GT(activities.size(), 7u);
    EXPECT_FALSE(feed->cursor());
    EXPECT_EQ(activities.size(), feed->items().count());
}

TEST_F(CollectionsOnSandbox, FollowingFavoritingAndCommentingReachTheLists)
{
    store->userForIdentifier(String::create("1011").ptr(), false, nullptr);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return store->cachedResource<VXUser>(String::create("1011").ptr()).get() != nullptr; }, 10));
    auto user = store->cachedResource<VXUser>(String::create("1011").ptr());
    user->isFollowedByMe();
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return user->isFollowedByMe() >= 0; }, 10));
    if (user->isFollowedByMe() == 1) {
        user->setFollowedByMe(0);
        ASSERT_TRUE(RunLoop::current().runUntil([&] { return user->isFollowedByMe() == 0; }, 10));
    }
    int announcements = 0;
    auto observation = user->addObserver("followedByMe", [&](ZUObject&, const String&) { ++announcements; });
    user->setFollowedByMe(1);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return user->isFollowedByMe() == 1; }, 10));
    EXPECT_EQ(announcements, 1);
    auto followings = store->usersFollowedByMe();
    followings->setPageSize(50);
    ASSERT_TRUE(loadPage(followings, Operation::Reload, false));
    EXPECT_TRUE(followings->items().containsObject(user.get()));
    user->setFollowedByMe(0);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return user->isFollowedByMe() == 0; }, 10));
    EXPECT_EQ(announcements, 2);

    // Favoriting a track puts it into the favorites list, the same object.
    auto favorites = store->favoriteTracks();
    favorites->setPageSize(50);
    ASSERT_TRUE(loadPage(favorites, Operation::Reload, false));
    size_t before = favorites->items().count();
    bool done = false;
    store->apiController()->favoriteTrackIdentifer(String::create("20042").ptr(), [&](VXAPIController*, Object*, Error*) { done = true; });
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return done; }, 10));
    ASSERT_TRUE(loadPage(favorites, Operation::Reload, false));
    EXPECT_EQ(favorites->items().count(), before + 1);
    auto favorite = store->cachedResource<VXTrack>(String::create("20042").ptr());
    EXPECT_TRUE(favorites->items().containsObject(favorite.get()));
    done = false;
    store->apiController()->unfavoriteTrackIdentifer(String::create("20042").ptr(), [&](VXAPIController*, Object*, Error*) { done = true; });
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return done; }, 10));
    ASSERT_TRUE(loadPage(favorites, Operation::Reload, false));
    EXPECT_EQ(favorites->items().count(), before);

    // A timed and an untimed comment show in the track's comments.
    RefPtr<VXComment> timed, untimed;
    store->postCommentWithTrackIdentifier(String::create("20042").ptr(), String::create("at the drop").ptr(), 61.5, [&](VXComment* c, Error*) { timed = c; });
    store->postCommentWithTrackIdentifier(String::create("20042").ptr(), String::create("lovely").ptr(), [&](VXComment* c, Error*) { untimed = c; });
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return timed && untimed; }, 10));
    EXPECT_TRUE(timed->isTimedComment());
    EXPECT_DOUBLE_EQ(timed->timestamp(), 61.5);
    // The service answers "timestamp": null for it: a value under the key, so
    // by the model's rule the comment counts as timed, at no position.
    EXPECT_EQ(untimed->timestamp(), 0);
    auto comments = store->commentsForTrackIdentifier(String::create("20042").ptr());
    comments->setPageSize(50);
    ASSERT_TRUE(loadPage(comments, Operation::Reload, false));
    EXPECT_TRUE(comments->items().containsObject(timed.get()));
    EXPECT_TRUE(comments->items().containsObject(untimed.get()));
}

TEST_F(CollectionsOnSandbox, AnUploadReportsProgressAndIsFollowedToFinished)
{
    std::string audio(256 * 1024, '\0');
    for (size_t i = 0; i < audio.size(); ++i)
        audio[i] = static_cast<char>(i * 31);
    auto upload = Dictionary::create({
        { "track[title]", String::create("Loopback Upload").ptr() },
        { "track[asset_data]", Data::create(audio).ptr() },
    });
    std::vector<float> progress;
    RefPtr<Dictionary> answer;
    store->postTrackWithTrackDictionary(
        upload.ptr(), [&](VXTrack* track, float value) {
        // Made from the upload's own fields ("track[title]"...), which are not a record's keys.
        EXPECT_TRUE(track);
        EXPECT_FALSE(track->resourceIdentifier());
        progress.push_back(value); }, [&](Object* json, Error*) { answer = dynamicDowncast<Dictionary>(json); });
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return static_cast<bool>(answer); }, 20));
    EXPECT_FALSE(progress.empty());
    auto identifier = answer->objectForKey("id")->description();
    auto created = store->cachedResource<VXTrack>(identifier.ptr());
    ASSERT_TRUE(created);
    EXPECT_EQ(created->state(), VXTrackStateStoring);
    // Fetching it through the store starts the polling that follows it.
    store->trackForIdentifier(identifier.ptr(), true, nullptr);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return created->state() == VXTrackStateFinished; }, 10));
}

TEST_F(CollectionsOnSandbox, AFailingPageEndsTheLoadAndKeepsTheItems)
{
    auto tracks = store->meUserTracks();
    tracks->setPageSize(3);
    ASSERT_TRUE(loadPage(tracks, Operation::Reload, false));
    ASSERT_EQ(tracks->items().count(), 3u);
    for (auto mode : { "status:503", "not-json", "cut-off", "drop" }) {
        sandbox::Fault fault;
        std::string problem;
        ASSERT_TRUE(sandbox::parseFault(std::string("/me/tracks=") + mode, fault, &problem)) << problem;
        service->addFault(fault);
        if (std::string_view(mode) == "not-json") {
            // The API layer hands a body that is not JSON over as no value and
            // no error; a collection raises for an answer that is not a page.
            EXPECT_EQ(test::raisedReason([&] { loadPage(tracks); }, InternalInconsistencyException), "unexpected result");
            EXPECT_FALSE(tracks->isLoadingItems());
        } else {
            ASSERT_TRUE(loadPage(tracks)) << mode;
        }
        EXPECT_TRUE(tracks->lastError()) << mode;
        EXPECT_EQ(tracks->items().count(), 3u) << mode;
        service->clearFaults();
    }
    ASSERT_TRUE(loadPage(tracks));
    EXPECT_FALSE(tracks->lastError());
    EXPECT_EQ(tracks->items().count(), 6u);
}
