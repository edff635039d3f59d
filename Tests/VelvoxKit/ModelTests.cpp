// The model classes: tracks, users, activities, comments and sharing notes,
// with the shared store on a stand-in client.

#include <VelvoxKit/VXActivity.h>
#include <VelvoxKit/VXComment.h>
#include <VelvoxKit/VXTrack.h>
#include <VelvoxKit/VXUser.h>

#include <Catalogue.h>
#include <StoreFixture.h>

#include <JSONCodec/JSONCodec.h>
#include <ZUKit/ZULoadingImageCache.h>

using namespace velvox;
using velvox::test::json;
using velvox::test::StoreFixture;

namespace {

std::vector<std::string> logged(const std::function<void()>& action)
{
    std::vector<std::string> lines;
    auto previous = setLogSink([&lines](std::string_view line) { lines.emplace_back(line); });
    action();
    setLogSink(previous);
    return lines;
}

class Models : public StoreFixture { };

} // namespace

TEST_F(Models, ATrackFillsEveryPropertyOfItsTableAndDescribesItself)
{
    auto track = VXTrack::create(test::catalogueTrack(1).ptr());
    EXPECT_EQ(track->resourceIdentifier()->str(), "20001");
    EXPECT_EQ(track->title()->str(), "Hour Home");
    EXPECT_DOUBLE_EQ(track->duration(), 458.032);
    EXPECT_EQ(track->state(), VXTrackStateStored);
    EXPECT_EQ(track->tagList()->count(), 2u);
    EXPECT_EQ(track->releaseYear()->str(), "2012");
    EXPECT_EQ(track->userIdentifier()->str(), "1001");
    EXPECT_TRUE(track->commentable());
    EXPECT_EQ(track->playbackCount(), 146705u);
    EXPECT_EQ(track->ISRC()->str(), "QZ0000020001");
    EXPECT_FALSE(track->videoURL());
    // 43 properties after the resource's own, in table order.
    auto descriptors = track->propertyTable().descriptors();
    ASSERT_EQ(descriptors.size(), 44u);
    EXPECT_EQ(descriptors[0]->keyPath().str(), "resourceIdentifier");
    EXPECT_EQ(descriptors[1]->keyPath().str(), "createdAt");
    EXPECT_EQ(descriptors[43]->keyPath().str(), "attachmentsURI");
    EXPECT_EQ(&VXTrack::propertyDescriptors(), &VXTrack::propertyDescriptors());

    EXPECT_EQ(test::withAddressMasked(track->description()->str()), "<VXTrack 0xADDRESS title = Hour Home | resourceIdentifier = 20001>");
    auto untitled = VXTrack::create(json(R"({"id": 5})").ptr());
    EXPECT_NE(untitled->description()->str().find("title = (null) |"), std::string::npos);

    for (auto [sharing, isPrivate] : std::initializer_list<std::pair<const char*, bool>> { { "public", false }, { "private", true } }) {
        track->setSharing(String::create(sharing).ptr());
        EXPECT_EQ(track->isPrivateTrack(), isPrivate) << sharing;
    }
    track->setSharing(nullptr);
    EXPECT_FALSE(track->isPrivateTrack());
}

TEST_F(Models, TrackImagesUseTheRightURLsAndNoneWithoutOne)
{
    EXPECT_EQ(detail::replacingLargeWith300("http://x.test/a/abc-large.jpg?size=large-large"), "http://x.test/a/abc-t300x300.jpg?size=large-t300x300");
    EXPECT_EQ(detail::replacingLargeWith300("http://x.test/avatars-000-large.jpg"), "http://x.test/avatars-000-t300x300.jpg");
    EXPECT_EQ(detail::replacingLargeWith300("http://x.test/plain.jpg"), "http://x.test/plain.jpg");

    auto before = ZULoadingImageCache::sharedLoadingImageCache().statistics().requestsSent;
    auto bare = VXTrack::create(json(R"({"id": 7})").ptr());
    EXPECT_FALSE(bare->artworkImage());
    EXPECT_FALSE(bare->artwork300Image());
    EXPECT_FALSE(bare->waveformImage());
    auto user = VXUser::create(json(R"({"id": 8, "username": "x"})").ptr());
    EXPECT_FALSE(user->avatarImage());
    EXPECT_FALSE(user->avatar300Image());
    EXPECT_EQ(ZULoadingImageCache::sharedLoadingImageCache().statistics().requestsSent, before);
}

TEST_F(Models, PlayingATrackIsRememberedOnceAndNeverUndone)
{
    auto track = VXTrack::create(test::catalogueTrack(1).ptr());
    EXPECT_FALSE(track->isOwnTrack()); // no me user yet
    store->setMeUserIdentifier(track->userIdentifier());
    EXPECT_TRUE(track->isOwnTrack());
    store->setMeUserIdentifier(String::create("999").ptr());
    EXPECT_FALSE(track->isOwnTrack());

    int announcements = 0;
    auto observation = track->addObserver("unplayed", [&](ZUObject&, const String&) { ++announcements; });
    EXPECT_TRUE(track->isUnplayed());
    track->setUnplayed(true);
    EXPECT_EQ(announcements, 0);
    track->setUnplayed(false);
    EXPECT_EQ(announcements, 1);
    EXPECT_FALSE(track->isUnplayed());
    EXPECT_TRUE(store->playedTrackIdentifiers()->containsObject(track->resourceIdentifier()));
    track->setUnplayed(false);
    track->setUnplayed(true);
    EXPECT_EQ(announcements, 1);
    EXPECT_FALSE(track->isUnplayed());
}

TEST_F(Models, AUserBecomesFullOnceAndAsksTheStoreAboutFollowing)
{
    auto user = store->userWithUserDictionary(json(R"({"id": 1003, "username": "short"})").ptr());
    EXPECT_FALSE(user->hasFullUserRepresentation());
    EXPECT_EQ(user->isFollowingMe(), -2); // asked, pending
    EXPECT_EQ(user->isFollowingMe(), -2); // not asked again
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0].resource, "/me/followers/1003");

    store->userWithUserDictionary(json(R"({"id": 1003, "track_count": 0})").ptr());
    EXPECT_TRUE(user->hasFullUserRepresentation());
    store->userWithUserDictionary(json(R"({"id": 1003, "username": "short again"})").ptr());
    EXPECT_TRUE(user->hasFullUserRepresentation());

    std::vector<std::string> changes;
    auto following = user->addObserver("followingMe", [&](ZUObject& object, const String& key) {
        changes.push_back(key.str() + "=" + object.valueForKey(key.view())->description()->str());
    });
    auto followed = user->addObserver("followedByMe", [&](ZUObject& object, const String& key) {
        changes.push_back(key.str() + "=" + object.valueForKey(key.view())->description()->str());
    });
    api().fail(0, 404, "VXVelvoxAPIErrorDomain");
    EXPECT_EQ(user->isFollowingMe(), 0);

    EXPECT_EQ(user->isFollowedByMe(), -2);
    ASSERT_EQ(sent().size(), 2u);
    EXPECT_EQ(sent()[1].resource, "/me/followings/1003");
    api().finish(1, R"({"id": 1003, "username": "short"})");
    EXPECT_EQ(user->isFollowedByMe(), 1);
    EXPECT_EQ(changes, (std::vector<std::string> { "followingMe=0", "followedByMe=1" }));

    // Unfollowing: nothing for -1, 2 or the current value; the flag moves when the service agrees.
    user->setFollowedByMe(1);
    user->setFollowedByMe(2);
    user->setFollowedByMe(-1);
    EXPECT_EQ(sent().size(), 2u);
    user->setFollowedByMe(0);
    ASSERT_EQ(sent().size(), 3u);
    EXPECT_EQ(sent()[2].method, "DELETE");
    EXPECT_EQ(user->isFollowedByMe(), 1);
    api().fail(2, 500);
    EXPECT_EQ(user->isFollowedByMe(), 1);
    user->setFollowedByMe(0);
    api().finish(3, "{}");
    EXPECT_EQ(user->isFollowedByMe(), 0);
    EXPECT_EQ(changes.back(), "followedByMe=0");

    // From an archive the relations are unknown again.
    auto archived = KeyedArchiver::archivedDataWithRootObject(user.get());
    auto restored = dynamicDowncast<VXUser>(KeyedUnarchiver::unarchiveObjectWithData(archived));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->valueForKey("followingMe")->description()->str(), "-1");
    EXPECT_EQ(restored->username()->str(), "short");
}

TEST_F(Models, ActivitiesResolveTheirTracksByType)
{
    auto trackRecord = R"({"id": 30001, "title": "T", "state": "finished", "user": {"id": 1007, "username": "u"}})";
    auto track = VXActivity::create(json(std::string(R"({"type": "track", "created_at": "2026/11/01 10:00:00 +0000", "tags": "a, b", "origin": )") + trackRecord + "}").ptr());
    EXPECT_TRUE(track->seen());
    ASSERT_TRUE(track->track());
    EXPECT_EQ(track->track(), store->cachedResource<VXTrack>(String::create("30001").ptr()).get());
    EXPECT_TRUE(store->cachedResource<VXUser>(String::create("1007").ptr()));
    EXPECT_EQ(track->tags()->count(), 2u);
    EXPECT_FALSE(track->sharingNote());
    EXPECT_EQ(test::withAddressMasked(track->description()->str()), "<VXActivity 0xADDRESS type = track>");

    auto shared = VXActivity::create(json(std::string(R"({"type": "track-sharing", "origin": {"sharing_note": {"text": "listen", "created_at": "2026/11/01 10:00:00 +0000"}, "track": )") + trackRecord + "}}").ptr());
    EXPECT_EQ(shared->track(), track->track());
    ASSERT_TRUE(shared->sharingNote());
    EXPECT_EQ(shared->sharingNote()->text()->str(), "listen");
    EXPECT_NE(shared->sharingNote()->description()->str().find("text = listen | createdAt = 2026-11-01 10:00:00 +0000>"), std::string::npos);

    auto lines = logged([&] {
        auto playlist = VXActivity::create(json(R"({"type": "playlist", "origin": {"id": 1}})").ptr());
        EXPECT_FALSE(playlist->track());
        auto playlistSharing = VXActivity::create(json(R"({"type": "playlist-sharing", "origin": {"id": 1}})").ptr());
        EXPECT_FALSE(playlistSharing->track());
    });
    EXPECT_EQ(lines, std::vector<std::string> { "Activitys with playlists aren't supported yet" });

    EXPECT_EQ(test::raisedReason([&] { VXActivity::create(json(R"({"type": "remix", "origin": {}})").ptr()); }, InternalInconsistencyException),
        "Invalid Activity type");

    // The three results are joined with AND: a record without a sharing note never counts as a change.
    auto record = json(std::string(R"({"type": "track", "created_at": "2026/11/02 10:00:00 +0000", "origin": )") + trackRecord + "}");
    EXPECT_FALSE(track->updateWithDictionary(record.ptr()));
    EXPECT_EQ(track->createdAt()->description()->str(), "2026-11-02 10:00:00 +0000");
}

TEST_F(Models, CommentsAreTimedByTheirRecordAndAskTheStoreForTheirTrack)
{
    auto timed = store->commentWithCommentDictionary(json(R"({"id": 9, "timestamp": 61500, "body": "nice", "track_id": 20001, "user_id": 1003, "user": {"id": 1003, "username": "u"}})").ptr());
    EXPECT_TRUE(timed->isTimedComment());
    EXPECT_DOUBLE_EQ(timed->timestamp(), 61.5);
    EXPECT_TRUE(store->cachedResource<VXUser>(String::create("1003").ptr()));
    store->commentWithCommentDictionary(json(R"({"id": 9, "body": "nice"})").ptr());
    EXPECT_FALSE(timed->isTimedComment());

    auto loose = VXComment::create(json(R"({"id": 10, "body": "no track"})").ptr());
    EXPECT_FALSE(loose->track());
    EXPECT_FALSE(loose->user());
    EXPECT_TRUE(sent().empty());

    int notifications = 0;
    auto observer = NotificationCenter::defaultCenter().addObserver(VXResourceAttributesDidChangeNotification, timed.get(), [&](Notification&) { ++notifications; });
    EXPECT_FALSE(timed->track());
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0].resource, "tracks/20001");
    api().finish(0, R"({"id": 20001, "title": "t", "state": "finished"})");
    EXPECT_EQ(notifications, 1);
    EXPECT_TRUE(timed->track());

    auto lines = logged([&] {
        EXPECT_FALSE(timed->user(true) == nullptr);
        api().fail(1, 500);
    });
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("VXTrack - User fetch error: ", 0), 0u);
    EXPECT_EQ(notifications, 1);
}
