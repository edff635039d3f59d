// The resource store on a stand-in client: the identity map, single fetches,
// polling, the me user, follow checks, play history and the archives.

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>

#include <Catalogue.h>
#include <StoreFixture.h>

#include <filesystem>
#include <fstream>

using namespace velvox;
using velvox::test::json;
using velvox::test::ManualTime;
using velvox::test::StoreFixture;

namespace {

Ref<String> text(std::string_view value) { return String::create(value); }

struct Fetched {
    int calls { 0 };
    RefPtr<Object> result;
    RefPtr<Error> error;
    template<typename T>
    std::function<void(T*, Error*)> block()
    {
        return [this](T* object, Error* failure) {
            ++calls;
            result = object;
            error = failure;
        };
    }
};

class Store : public StoreFixture { };

} // namespace

TEST_F(Store, OneObjectPerClassAndIdentifierAnnouncedOncePerRealChange)
{
    int notifications = 0;
    auto observer = NotificationCenter::defaultCenter().addObserver(VXResourceAttributesDidChangeNotification, nullptr, [&](Notification&) { ++notifications; });
    auto first = store->trackWithTrackDictionary(json(R"({"id": 1, "title": "A", "state": "finished"})").ptr());
    EXPECT_EQ(notifications, 1);
    auto again = store->trackWithTrackDictionary(json(R"({"id": "1", "title": "A", "state": "finished"})").ptr());
    EXPECT_EQ(again.get(), first.get());
    EXPECT_EQ(notifications, 1);
    auto changed = store->trackWithTrackDictionary(json(R"({"id": 1, "title": "B"})").ptr());
    EXPECT_EQ(changed.get(), first.get());
    EXPECT_EQ(first->title()->str(), "B");
    EXPECT_EQ(notifications, 2);
    // A user and a track may share an identifier.
    auto user = store->userWithUserDictionary(json(R"({"id": 1, "username": "u"})").ptr());
    EXPECT_EQ(store->cachedResource<VXTrack>(text("1").ptr()).get(), first.get());
    EXPECT_EQ(store->cachedResource<VXUser>(text("1").ptr()).get(), user.get());
    EXPECT_FALSE(store->userWithUserDictionary(nullptr));
    // A record without an identifier makes an object that is not shared.
    auto loose = store->updateCacheForResource<VXTrack>(nullptr, json(R"({"title": "upload"})").ptr());
    EXPECT_EQ(loose->title()->str(), "upload");
    EXPECT_EQ(store->resourceCacheStatistics().objectCount, 2u);

    store->clearResourceCache();
    EXPECT_FALSE(store->cachedResource<VXTrack>(text("1").ptr()));
}

TEST_F(Store, FetchesAnswerTheCachedObjectAndRefreshItInPlace)
{
    Fetched uncached;
    EXPECT_FALSE(store->userForIdentifier(text("5").ptr(), false, uncached.block<VXUser>()));
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0].resource, "/users/5");
    EXPECT_EQ(uncached.calls, 0);
    api().finish(0, R"({"id": 5, "username": "five"})");
    ASSERT_EQ(uncached.calls, 1);
    auto* user = downcast<VXUser>(uncached.result.get());

    Fetched cached;
    EXPECT_EQ(store->userForIdentifier(text("5").ptr(), false, cached.block<VXUser>()).get(), user);
    EXPECT_EQ(cached.calls, 0);
    EXPECT_EQ(sent().size(), 1u);

    Fetched forced;
    EXPECT_EQ(store->userForIdentifier(text("5").ptr(), true, forced.block<VXUser>()).get(), user);
    api().finish(1, R"({"id": 5, "username": "renamed"})");
    EXPECT_EQ(forced.result.get(), user);
    EXPECT_EQ(user->username()->str(), "renamed");

    // Errors reach the block unchanged; the map is not touched.
    Fetched failed;
    store->trackForIdentifier(text("77").ptr(), false, failed.block<VXTrack>());
    api().fail(2, 503);
    EXPECT_EQ(failed.calls, 1);
    EXPECT_FALSE(failed.result);
    EXPECT_EQ(failed.error->code(), 503);
    EXPECT_FALSE(store->cachedResource<VXTrack>(text("77").ptr()));

    // A comment is fetched on the track path and stored as a comment.
    Fetched comment;
    store->commentForIdentifier(text("88").ptr(), false, comment.block<VXComment>());
    EXPECT_EQ(sent()[3].resource, "tracks/88");
    api().finish(3, R"({"id": 88, "body": "hi"})");
    EXPECT_TRUE(is<VXComment>(comment.result.get()));
}

TEST_F(Store, UnfinishedTracksArePolledUntilFinishedOrFailed)
{
    ManualTime time;
    store->trackWithTrackDictionary(json(R"({"id": 1, "state": "storing", "duration": 500})").ptr());
    store->trackWithTrackDictionary(json(R"({"id": 2, "state": "stored", "duration": 90000})").ptr());
    store->trackWithTrackDictionary(json(R"({"id": 3, "state": "finished", "duration": 1000})").ptr());
    store->trackWithTrackDictionary(json(R"({"id": 4, "state": "failed", "duration": 1000})").ptr());
    store->trackWithTrackDictionary(json(R"({"id": 5, "duration": 1000, "user": {"id": 900, "username": "embedded"}})").ptr());
    EXPECT_TRUE(store->cachedResource<VXUser>(text("900").ptr()));
    EXPECT_EQ(store->resourceCacheStatistics().pendingTrackRefreshes, 3u);

    RunLoop::current().runFor(1.99);
    EXPECT_TRUE(sent().empty());
    RunLoop::current().runFor(0.02); // 2.0 s: tracks 1 and 5 (their doubled durations are shorter)
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_EQ(sent()[0].resource, "tracks/1");
    EXPECT_EQ(sent()[1].resource, "tracks/5");
    // Track 1 is still storing: the answer schedules the next look.
    api().finish(0, R"({"id": 1, "state": "storing", "duration": 500})");
    api().finish(1, R"({"id": 5, "state": "finished", "duration": 1000})");
    RunLoop::current().runFor(2.0);
    ASSERT_EQ(sent().size(), 3u);
    api().finish(2, R"({"id": 1, "state": "finished", "duration": 500})");
    RunLoop::current().runFor(175);
    EXPECT_EQ(sent().size(), 3u);
    RunLoop::current().runFor(2); // 180 s: track 2
    ASSERT_EQ(sent().size(), 4u);
    EXPECT_EQ(sent()[3].resource, "tracks/2");
    api().finish(3, R"({"id": 2, "state": "failed"})");
    RunLoop::current().runFor(1000);
    EXPECT_EQ(sent().size(), 4u);
    EXPECT_EQ(store->resourceCacheStatistics().pendingTrackRefreshes, 0u);
}

TEST_F(Store, MergedRefreshesAskOncePerTrackAndAFewAtATime)
{
    ManualTime time;
    // By default every sighting schedules its own refresh.
    store->trackWithTrackDictionary(json(R"({"id": 1, "state": "storing", "duration": 0.5})").ptr());
    RunLoop::current().runFor(1);
    store->trackWithTrackDictionary(json(R"({"id": 1, "state": "storing", "duration": 0.5})").ptr());
    RunLoop::current().runFor(1.01);
    ASSERT_EQ(sent().size(), 1u);
    api().finish(0, R"({"id": 1, "state": "finished"})");
    RunLoop::current().runFor(1);
    ASSERT_EQ(sent().size(), 2u);
    api().finish(1, R"({"id": 1, "state": "finished"})");

    // Merged: one refresh per track, at the soonest time asked for.
    auto options = store->options();
    options.mergesTrackRefreshes = true;
    store->setOptions(options);
    store->trackWithTrackDictionary(json(R"({"id": 2, "state": "storing", "duration": 90})").ptr());
    RunLoop::current().runFor(1);
    for (int sighting = 0; sighting < 3; ++sighting)
        store->trackWithTrackDictionary(json(R"({"id": 2, "state": "storing", "duration": 0.5})").ptr());
    EXPECT_EQ(store->resourceCacheStatistics().pendingTrackRefreshes, 1u);
    RunLoop::current().runFor(2.01);
    ASSERT_EQ(sent().size(), 3u);
    EXPECT_EQ(sent()[2].resource, "tracks/2");
    api().finish(2, R"({"id": 2, "state": "finished"})");
    RunLoop::current().runFor(200);
    EXPECT_EQ(sent().size(), 3u);

    // At most two in flight; the rest wait their turn, and a raise out of an
    // answer gives its place back too.
    options.maximumTrackRefreshesInFlight = 2;
    store->setOptions(options);
    for (int id = 10; id < 15; ++id)
        store->trackWithTrackDictionary(json(format(R"({"id": %d, "state": "stored", "duration": 1})", id)).ptr());
    RunLoop::current().runFor(2.01);
    ASSERT_EQ(sent().size(), 5u);
    EXPECT_EQ(sent()[3].resource, "tracks/10");
    EXPECT_EQ(sent()[4].resource, "tracks/11");
    EXPECT_EQ(store->resourceCacheStatistics().pendingTrackRefreshes, 5u);
    api().finish(3, R"({"id": 10, "state": "finished"})");
    RunLoop::current().runFor(0.01);
    ASSERT_EQ(sent().size(), 6u);
    EXPECT_EQ(sent()[5].resource, "tracks/12");
    EXPECT_ANY_THROW(api().finish(4, R"({"id": 11, "duration": {}})"));
    RunLoop::current().runFor(0.01);
    ASSERT_EQ(sent().size(), 7u);
    EXPECT_EQ(sent()[6].resource, "tracks/13");
    api().finish(5, R"({"id": 12, "state": "finished"})");
    api().finish(6, R"({"id": 13, "state": "finished"})");
    RunLoop::current().runFor(0.01);
    ASSERT_EQ(sent().size(), 8u);
    api().finish(7, R"({"id": 14, "state": "finished"})");
    RunLoop::current().runFor(0.01);
    EXPECT_EQ(store->resourceCacheStatistics().pendingTrackRefreshes, 0u);
}

TEST_F(Store, ReportedAnswersThatDoNotFitEndInErrorsNamingRecordAndField)
{
    // The default raises, as the models' interfaces say.
    store->trackForIdentifier(text("20005").ptr(), false, nullptr);
    EXPECT_ANY_THROW(api().finish(0, R"({"id": 20005, "duration": {}})"));

    auto options = store->options();
    options.unreadableAnswerPolicy = VXUnreadableAnswerPolicy::Report;
    store->setOptions(options);
    struct Case {
        std::function<void(VXResourceController&, Fetched&)> ask;
        std::string_view answer;
        int64_t code;
        std::vector<std::string_view> message;
    } cases[] = {
        { [](auto& s, auto& f) { s.trackForIdentifier(text("20005").ptr(), true, f.template block<VXTrack>()); },
            R"({"id": 20005, "duration": {}})", VXResourceErrorUnreadableAnswer, { "track 20005", "track record's \"duration\"" } },
        { [](auto& s, auto& f) { s.userForIdentifier(text("5").ptr(), true, f.template block<VXUser>()); },
            R"({"id": [5], "username": "five"})", VXResourceErrorUnreadableAnswer, { "user 5", "\"id\"" } },
        { [](auto& s, auto& f) { s.userForIdentifier(text("5").ptr(), true, f.template block<VXUser>()); },
            "<html>busy</html>", VXResourceErrorNotARecord, { "user 5", "not a record" } },
        { [](auto& s, auto& f) { s.meUserForceRefresh(true, f.template block<VXUser>()); },
            "[1, 2]", VXResourceErrorNotARecord, { "a list" } },
        { [](auto& s, auto& f) { s.commentForIdentifier(text("8").ptr(), true, f.template block<VXComment>()); },
            R"({"id": 8, "created_at": 12})", VXResourceErrorUnreadableAnswer, { "\"created_at\"" } },
    };
    for (auto& c : cases) {
        size_t request = sent().size();
        Fetched fetched;
        c.ask(*store, fetched);
        ASSERT_EQ(sent().size(), request + 1);
        EXPECT_NO_THROW(api().finish(request, c.answer)) << c.answer;
        ASSERT_EQ(fetched.calls, 1) << c.answer;
        EXPECT_FALSE(fetched.result) << c.answer;
        ASSERT_TRUE(fetched.error) << c.answer;
        EXPECT_EQ(fetched.error->domain()->view(), VXResourceErrorDomain);
        EXPECT_EQ(fetched.error->code(), c.code) << c.answer;
        for (auto piece : c.message)
            EXPECT_NE(fetched.error->localizedDescription()->str().find(piece), std::string::npos) << fetched.error->localizedDescription()->str();
    }
    // The control: a good answer still reads.
    Fetched good;
    store->userForIdentifier(text("5").ptr(), true, good.block<VXUser>());
    api().finish(sent().size() - 1, R"({"id": 5, "username": "five"})");
    EXPECT_FALSE(good.error);
    EXPECT_EQ(downcast<VXUser>(good.result.get())->username()->str(), "five");

    // A follow check that cannot be read is unknown, with the reason.
    RefPtr<Error> checkError;
    std::string checkAnswer;
    store->meIsFollowingUserForIdentifier(text("6").ptr(), [&](Number* result, Error* error) {
        checkAnswer = result->description()->str();
        checkError = error;
    });
    EXPECT_NO_THROW(api().finish(sent().size() - 1, R"({"id": {"x": 1}})"));
    EXPECT_EQ(checkAnswer, "-1");
    ASSERT_TRUE(checkError);
    EXPECT_EQ(checkError->domain()->view(), VXResourceErrorDomain);

    // A page with one bad record ends its load with the error; the items stay.
    auto tracks = store->meUserTracks();
    tracks->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false);
    api().finish(sent().size() - 1, R"([{"id": 30, "state": "finished"}])");
    ASSERT_EQ(tracks->items().count(), 1u);
    tracks->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false);
    EXPECT_NO_THROW(api().finish(sent().size() - 1, R"([{"id": 30, "state": "finished"}, {"id": 31, "user_id": []}])"));
    EXPECT_FALSE(tracks->isLoadingItems());
    ASSERT_TRUE(tracks->lastError());
    EXPECT_EQ(tracks->lastError()->domain()->view(), VXResourceErrorDomain);
    EXPECT_EQ(tracks->items().count(), 1u);
}

TEST_F(Store, TheMeUserAndItsHistorySwitchTogether)
{
    std::vector<std::string> announced;
    auto observation = store->addObserver("meUserIdentifier", [&](ZUObject& object, const String&) {
        auto value = object.valueForKey("meUserIdentifier");
        announced.push_back(value ? value->description()->str() : "nil");
    });
    // A failed "/me": the block first, with no user, then the identifier goes.
    store->setMeUserIdentifier(text("1").ptr());
    Fetched failed;
    std::string identifierDuringBlock;
    store->meUserForceRefresh(true, [&](VXUser* user, Error* error) {
        failed.block<VXUser>()(user, error);
        identifierDuringBlock = format("%@", store->meUserIdentifier());
    });
    api().fail(0, 401);
    EXPECT_EQ(failed.calls, 1);
    EXPECT_FALSE(failed.result);
    EXPECT_EQ(identifierDuringBlock, "1");
    EXPECT_FALSE(store->meUserIdentifier());
    EXPECT_EQ(announced, (std::vector<std::string> { "1", "nil" }));

    Fetched me;
    EXPECT_FALSE(store->meUserForceRefresh(false, me.block<VXUser>()));
    api().finish(1, R"({"id": 1000, "username": "me", "track_count": 3})");
    EXPECT_EQ(store->meUserIdentifier()->str(), "1000");
    EXPECT_EQ(store->meUserForceRefresh(false, me.block<VXUser>()).get(), me.result.get());
    EXPECT_EQ(me.calls, 1);
    announced.clear();
    store->setMeUserIdentifier(text("1000").ptr());
    EXPECT_TRUE(announced.empty());

    // Plays and refresh dates belong to the account.
    store->registerTrackPlayedForIdentifier(text("t1").ptr());
    store->registerLastRefreshDate(Date::create(100).ptr(), text("dashboard").ptr());
    store->setMeUserIdentifier(text("2000").ptr());
    EXPECT_FALSE(store->hasTrackBeenPlayedForTrackIdentifier(text("t1").ptr()));
    store->setMeUserIdentifier(text("1000").ptr());
    EXPECT_TRUE(store->hasTrackBeenPlayedForTrackIdentifier(text("t1").ptr()));
    // Refresh dates are saved only at termination, so the switch lost this one.
    EXPECT_EQ(store->lastRefreshTimeStampForIdentifier(text("dashboard").ptr()).ptr(), &Date::distantPast());
    EXPECT_TRUE(std::filesystem::exists(dataFolder() + "/1000-playedTracks.archive"));
    EXPECT_TRUE(std::filesystem::exists(dataFolder() + "/2000-playedTracks.archive"));
}

TEST_F(Store, HistoryWithoutAnAccountAndTheAssertions)
{
    store->registerTrackPlayedForIdentifier(text("t1").ptr());
    EXPECT_FALSE(store->hasTrackBeenPlayedForTrackIdentifier(text("t1").ptr()));
    store->registerLastRefreshDate(nullptr, text("x").ptr());
    EXPECT_EQ(store->lastRefreshTimeStampForIdentifier(text("x").ptr()).ptr(), &Date::distantPast());

    static const struct {
        std::function<void(VXResourceController&)> call;
        const char* message;
    } cases[] = {
        { [](auto& s) { s.registerTrackPlayedForIdentifier(nullptr); }, "trackIdentifier needed to register play" },
        { [](auto& s) { s.hasTrackBeenPlayedForTrackIdentifier(nullptr); }, "trackIdentifier needed find out if project has been played" },
        { [](auto& s) { s.lastRefreshTimeStampForIdentifier(nullptr); }, "identifier needed for retrieving timestamp" },
        { [](auto& s) { s.registerLastRefreshDate(nullptr, nullptr); }, "identifier needed for registering timestamp" },
    };
    for (auto& c : cases)
        EXPECT_EQ(test::raisedReason([&] { c.call(*store); }, InternalInconsistencyException), c.message);

    // Termination without an account writes the map only, and only into a folder that exists.
    NotificationCenter::defaultCenter().postNotification(ApplicationWillTerminateNotification);
    EXPECT_FALSE(std::filesystem::exists(dataFolder()));
    std::filesystem::create_directories(dataFolder());
    NotificationCenter::defaultCenter().postNotification(ApplicationWillTerminateNotification);
    std::vector<std::string> files;
    for (auto& entry : std::filesystem::directory_iterator(dataFolder()))
        files.push_back(entry.path().filename().string());
    EXPECT_EQ(files, std::vector<std::string> { "ressources.archive" });
}

TEST_F(Store, TheIdentityMapAndTheHistorySurviveARestart)
{
    store->setMeUserIdentifier(text("1000").ptr());
    auto track = store->trackWithTrackDictionary(test::catalogueTrack(3).ptr());
    auto user = store->userWithUserDictionary(json(R"({"id": 1000, "username": "me", "avatar_url": "http://x.test/a-large.png", "track_count": 4, "primary_email_confirmed": true})").ptr());
    auto comment = store->commentWithCommentDictionary(json(R"({"id": 55, "timestamp": 1500, "body": "b", "track_id": 20004, "created_at": "2026/01/02 03:04:05 +0000"})").ptr());
    store->registerTrackPlayedForIdentifier(track->resourceIdentifier());
    store->registerLastRefreshDate(Date::create(1234).ptr(), text("me").ptr());
    // On a fresh machine the folder comes into being with the account's files,
    // after the map's save was tried: the map is written from the second save on.
    store->applicationWillTerminate(nullptr);
    EXPECT_FALSE(std::filesystem::exists(dataFolder() + "/ressources.archive"));
    EXPECT_TRUE(std::filesystem::exists(dataFolder() + "/1000-lastPlayedTimestamps.archive"));
    store->applicationWillTerminate(nullptr);

    auto& restarted = makeStore();
    for (RefPtr<VXResource> original : { RefPtr<VXResource>(track), RefPtr<VXResource>(user), RefPtr<VXResource>(comment) }) {
        auto loaded = restarted.cachedResource(original->className(), original->resourceIdentifier());
        ASSERT_TRUE(loaded) << original->className();
        EXPECT_NE(loaded.get(), original.get());
        EXPECT_EQ(loaded->className(), original->className());
        for (auto* descriptor : original->propertyTable().descriptors()) {
            auto key = descriptor->keyPath().view();
            EXPECT_TRUE(objectsEqual(original->valueForKey(key).get(), loaded->valueForKey(key).get())) << original->className() << "." << key;
        }
    }
    EXPECT_FALSE(restarted.meUserIdentifier());
    restarted.setMeUserIdentifier(text("1000").ptr());
    EXPECT_TRUE(restarted.hasTrackBeenPlayedForTrackIdentifier(track->resourceIdentifier()));
    EXPECT_EQ(restarted.lastRefreshTimeStampForIdentifier(text("me").ptr())->timeIntervalSince1970(), 1234);
    auto statistics = restarted.resourceCacheStatistics();
    ASSERT_EQ(statistics.classes.size(), 3u);
    EXPECT_EQ(statistics.classes[0].className, "VXComment");
    EXPECT_GT(statistics.estimatedBytes, 500u);
}

TEST_F(Store, ACorruptArchiveLoadsEmptyAndIsKeptAside)
{
    std::filesystem::create_directories(dataFolder());
    {
        std::ofstream out(dataFolder() + "/ressources.archive", std::ios::binary);
        out << "not an archive at all";
    }
    auto& restarted = makeStore();
    EXPECT_EQ(restarted.resourceCacheStatistics().objectCount, 0u);
    EXPECT_TRUE(std::filesystem::exists(dataFolder() + "/ressources.archive.corrupt"));
    EXPECT_FALSE(std::filesystem::exists(dataFolder() + "/ressources.archive"));
    // A hostile account identifier stays inside the folder.
    EXPECT_EQ(restarted.playedTrackIdentifiersStoragePathForMeUserIdentifer(text("../../x").ptr()), dataFolder() + "/..%2F..%2Fx-playedTracks.archive");
    EXPECT_EQ(restarted.lastPlayedTimestampsStoragePathForMeUserIdentifer(nullptr), dataFolder() + "/(null)-lastPlayedTimestamps.archive");
}

TEST_F(Store, FollowChecksAnswerPendingThenTheService)
{
    std::vector<std::string> answers;
    auto record = [&answers](Number* result, Error*) { answers.push_back(result->description()->str()); };
    EXPECT_EQ(store->meIsFollowingUserForIdentifier(text("1").ptr(), record), -2);
    EXPECT_EQ(store->meIsFollowedByUserForIdentifier(text("2").ptr(), record), -2);
    EXPECT_EQ(store->meIsFollowingUserForIdentifier(text("3").ptr(), record), -2);
    EXPECT_EQ(sent()[0].resource, "/me/followings/1");
    EXPECT_EQ(sent()[1].resource, "/me/followers/2");
    api().finish(0, R"({"id": 1, "username": "one"})");
    api().fail(1, 404);
    api().fail(2, 500);
    EXPECT_EQ(answers, (std::vector<std::string> { "1", "0", "-1" }));
    EXPECT_EQ(store->cachedResource<VXUser>(text("1").ptr())->username()->str(), "one");

    Fetched follow;
    store->startFollowingUserForIdentifier(text("4").ptr(), follow.block<Object>());
    EXPECT_EQ(sent()[3].method, "PUT");
    api().finish(3, R"({"status": "ok"})");
    EXPECT_TRUE(is<Dictionary>(follow.result.get()));
}
