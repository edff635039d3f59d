// The remote collections and the store's factories, uploads and comments, on
// a stand-in client: paging, cursors, typed items, parameters and assertions.

#include <Platform/Platform.h>
#include <VelvoxKit/VXActivity.h>

#include <Catalogue.h>
#include <StoreFixture.h>

#include <cmath>

using namespace velvox;
using velvox::test::json;
using velvox::test::StoreFixture;
using Operation = ZURemoteCollectionReloadOperationType;

namespace {

Ref<String> text(std::string_view value) { return String::create(value); }

std::map<std::string, std::string> parametersOf(const test::SentRequest& request)
{
    std::map<std::string, std::string> out;
    if (request.parameters) {
        for (auto& entry : *request.parameters)
            out[entry.key->description()->str()] = entry.object->description()->str();
    }
    return out;
}

// A page of n track records with identifiers from `first` on.
std::string trackPage(int first, int n)
{
    std::string page = "[";
    for (int i = 0; i < n; ++i)
        page += (i ? "," : "") + format(R"({"id": %d, "title": "T%d", "state": "finished"})", first + i, first + i);
    return page + "]";
}

class Collections : public StoreFixture { };

} // namespace

TEST_F(Collections, OffsetPagingSendsLimitAndOffsetAndEndsOnAShortPage)
{
    auto collection = store->tracksForSearchQuery(text("night").ptr(), json(R"({"limit": "99", "genre": "Indie"})").ptr());
    collection->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    collection->loadMoreItemsForReloadOperationType(Operation::LoadMore, true); // ignored while loading
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0].method, "GET");
    EXPECT_EQ(sent()[0].resource, "/tracks");
    EXPECT_EQ(parametersOf(sent()[0]), (std::map<std::string, std::string> { { "q", "night" }, { "genre", "Indie" }, { "limit", "20" }, { "offset", "0" } }));

    api().finish(0, trackPage(1, 20));
    EXPECT_FALSE(collection->isLoadingItems());
    EXPECT_EQ(collection->items().count(), 20u);
    EXPECT_TRUE(collection->hasMoreItems());
    EXPECT_TRUE(is<VXTrack>(collection->items()[0]));

    collection->loadMoreItemsForReloadOperationType(Operation::LoadMore, true);
    EXPECT_EQ(parametersOf(sent()[1])["offset"], "20");
    api().finish(1, trackPage(21, 19));
    EXPECT_FALSE(collection->hasMoreItems());
    EXPECT_EQ(collection->items().count(), 39u);
    EXPECT_EQ(test::withAddressMasked(collection->description()->str()),
        "<VXTrackCollectionController = 0xADDRESS | resource = /tracks | hasMoreItems = NO | loaded item count = 39 >");

    collection->loadMoreItemsForReloadOperationType(Operation::LoadMore, true);
    api().finish(2, "[]");
    EXPECT_FALSE(collection->hasMoreItems());

    // A failing page ends the load with the error and keeps the items.
    collection->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    api().fail(3, 503);
    EXPECT_FALSE(collection->isLoadingItems());
    EXPECT_EQ(collection->items().count(), 39u);
    EXPECT_EQ(collection->lastError()->code(), 503);

    // An answer that is not an array raises, after ending the load.
    collection->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    EXPECT_EQ(test::raisedReason([&] { api().finish(4, R"({"collection": []})"); }, InternalInconsistencyException), "unexpected result");
    EXPECT_FALSE(collection->isLoadingItems());
}

TEST_F(Collections, PageSizeStaysWithinOneToFifty)
{
    auto collection = store->favoriteTracks();
    int announcements = 0;
    auto observation = collection->addObserver("pageSize", [&](ZUObject&, const String&) { ++announcements; });
    collection->setPageSize(50);
    EXPECT_EQ(announcements, 1);
    collection->setPageSize(50);
    EXPECT_EQ(announcements, 1);
    EXPECT_EQ(test::raisedReason([&] { collection->setPageSize(51); }, InternalInconsistencyException), "Velvox maximum collection size is 50 items");
    EXPECT_EQ(test::raisedReason([&] { collection->setPageSize(0); }, InternalInconsistencyException), "You need to request at least 1 item");
    EXPECT_EQ(collection->pageSize(), 50u);
    collection->setPageSize(1);
    collection->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    EXPECT_EQ(parametersOf(sent()[0])["limit"], "1");
    api().finish(0, trackPage(1, 1));
    EXPECT_TRUE(collection->hasMoreItems());
}

TEST_F(Collections, CursorPagingFollowsNextHref)
{
    std::vector<std::string> lines;
    auto previous = setLogSink([&lines](std::string_view line) { lines.emplace_back(line); });
    auto feed = store->incomingActivities();
    feed->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    EXPECT_EQ(sent()[0].resource, "me/activities/tracks");
    EXPECT_TRUE(parametersOf(sent()[0]).empty()); // neither limit nor offset
    api().finish(0, R"({"collection": [{"type": "track", "origin": {"id": 1, "state": "finished"}}],
        "next_href": "https://api.velvox.test/me/activities/tracks?a=1&cursor=XY%2FZ&b=2"})");
    EXPECT_EQ(feed->cursor()->str(), "XY%2FZ"); // as it stands, not decoded
    EXPECT_TRUE(feed->hasMoreItems());
    EXPECT_EQ(lines, std::vector<std::string> { "new cursor is = XY%2FZ" });

    feed->loadMoreItemsForReloadOperationType(Operation::LoadMore, true);
    EXPECT_EQ(parametersOf(sent()[1]), (std::map<std::string, std::string> { { "cursor", "XY%2FZ" } }));
    // No cursor in the next URL: the old one stays (and asks for the same page again).
    api().finish(1, R"({"collection": [], "next_href": "https://api.velvox.test/x?page=2"})");
    EXPECT_EQ(feed->cursor()->str(), "XY%2FZ");
    feed->loadMoreItemsForReloadOperationType(Operation::LoadMore, true);
    api().finish(2, R"({"collection": [], "next_href": "https://x.test/?cursor=A&cursor=B"})");
    EXPECT_EQ(feed->cursor()->str(), "B");
    feed->loadMoreItemsForReloadOperationType(Operation::LoadMore, true);
    api().finish(3, R"({"collection": []})");
    EXPECT_FALSE(feed->cursor());
    EXPECT_FALSE(feed->hasMoreItems());

    // A load from the start sends no cursor.
    feed->setCursor(text("OLD").ptr());
    feed->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    EXPECT_TRUE(parametersOf(sent()[4]).empty());
    EXPECT_EQ(test::raisedReason([&] { api().finish(4, R"({"next_href": "https://x.test/?cursor"})"); }, RangeException).empty(), false);
    EXPECT_EQ(test::raisedReason([&] {
        feed->loadMoreItemsForReloadOperationType(Operation::Reload, false);
        api().finish(5, "[]");
    },
                  InternalInconsistencyException),
        "unexpected result");
    setLogSink(previous);
}

TEST_F(Collections, TypedItemsComeFromTheIdentityMapExceptActivities)
{
    auto first = store->tracksForUserIdentifier(text("7").ptr());
    auto second = store->favoriteTracks();
    first->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    second->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    api().finish(0, trackPage(100, 2));
    api().finish(1, trackPage(100, 2));
    EXPECT_EQ(first->items()[0], second->items()[0]);

    auto users = store->usersForSearchQuery(text("ines").ptr());
    users->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    api().finish(2, R"([{"id": 3, "username": "ines"}])");
    EXPECT_EQ(users->items()[0], store->cachedResource<VXUser>(text("3").ptr()).get());

    auto comments = store->commentsForTrackIdentifier(text("100").ptr());
    comments->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    api().finish(3, R"([{"id": 5, "body": "b", "user": {"id": 4, "username": "c"}}])");
    EXPECT_TRUE(is<VXComment>(comments->items()[0]));
    EXPECT_TRUE(store->cachedResource<VXUser>(text("4").ptr()));

    auto activity = R"({"collection": [{"type": "track", "origin": {"id": 100, "state": "finished"}}]})";
    auto feedA = store->incomingActivities(), feedB = store->exclusiveActivities();
    feedA->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    feedB->loadMoreItemsForReloadOperationType(Operation::Reload, false);
    EXPECT_EQ(sent()[5].resource, "me/activities/tracks/exclusive");
    api().finish(4, activity);
    api().finish(5, activity);
    EXPECT_NE(feedA->items()[0], feedB->items()[0]);
    EXPECT_EQ(downcast<VXActivity>(feedA->items()[0])->track(), first->items()[0]);
}

TEST_F(Collections, FactoriesUseTheirPathsAndCheckTheirArguments)
{
    auto id = text("42");
    static const struct {
        std::function<Ref<VXRemoteCollectionController>(VXResourceController&, String*)> make;
        const char* className;
        const char* resource;
        const char* nilMessage;
    } cases[] = {
        { [](auto& s, auto*) { return Ref<VXRemoteCollectionController>(s.incomingActivities()); }, "VXActivityCollectionController", "me/activities/tracks", nullptr },
        { [](auto& s, auto*) { return Ref<VXRemoteCollectionController>(s.exclusiveActivities()); }, "VXActivityCollectionController", "me/activities/tracks/exclusive", nullptr },
        { [](auto& s, auto*) { return Ref<VXRemoteCollectionController>(s.favoriteTracks()); }, "VXTrackCollectionController", "me/favorites", nullptr },
        { [](auto& s, auto*) { return Ref<VXRemoteCollectionController>(s.usersFollowingMe()); }, "VXUserCollectionController", "me/followers", nullptr },
        { [](auto& s, auto*) { return Ref<VXRemoteCollectionController>(s.usersFollowedByMe()); }, "VXUserCollectionController", "me/followings", nullptr },
        { [](auto& s, auto*) { return Ref<VXRemoteCollectionController>(s.meUserTracks()); }, "VXTrackCollectionController", "me/tracks", nullptr },
        { [](auto& s, auto* i) { return Ref<VXRemoteCollectionController>(s.usersFollowingUserForIdentifier(i)); }, "VXUserCollectionController", "/users/42/followers", "A userIdentifier is required to retrieve followers" },
        { [](auto& s, auto* i) { return Ref<VXRemoteCollectionController>(s.usersFollowedByUserForIdentifier(i)); }, "VXUserCollectionController", "/users/42/followings", "A userIdentifier is required to retrieve followings" },
        { [](auto& s, auto* i) { return Ref<VXRemoteCollectionController>(s.tracksForUserIdentifier(i)); }, "VXTrackCollectionController", "/users/42/tracks", "A userIdentifier is required to retrieve tracks by user" },
        { [](auto& s, auto* i) { return Ref<VXRemoteCollectionController>(s.favoritesForUserIdentifier(i)); }, "VXTrackCollectionController", "/users/42/favorites", "A userIdentifier is required to retrieve favorites by user" },
        { [](auto& s, auto* i) { return Ref<VXRemoteCollectionController>(s.favoritersForTrackIdentifier(i)); }, "VXUserCollectionController", "/tracks/42/favoriters", "trackIdentifier needed find out which users have favorites" },
        { [](auto& s, auto* i) { return Ref<VXRemoteCollectionController>(s.commentsForTrackIdentifier(i)); }, "VXCommentCollectionController", "/tracks/42/comments", "A trackIdentifier is required to comments on a track." },
        { [](auto& s, auto* i) { return Ref<VXRemoteCollectionController>(s.usersForSearchQuery(i)); }, "VXUserCollectionController", "/users", "Invalid parameter not satisfying: query" },
    };
    for (auto& c : cases) {
        auto collection = c.make(*store, id.ptr());
        EXPECT_EQ(collection->className(), c.className) << c.resource;
        EXPECT_EQ(collection->resource()->str(), c.resource);
        if (c.nilMessage) {
            EXPECT_EQ(test::raisedReason([&] { c.make(*store, nullptr); }, InternalInconsistencyException), c.nilMessage);
        }
    }
    // The options win over the query; the query is checked before the user.
    auto search = store->tracksForUserIdentifier(id.ptr(), text("a").ptr(), json(R"({"q": "b", "genre": "Indie"})").ptr());
    EXPECT_EQ(search->parameters().objectForKey("q")->description()->str(), "b");
    EXPECT_EQ(search->parameters().count(), 2u);
    EXPECT_EQ(test::raisedReason([&] { store->tracksForUserIdentifier(nullptr, nullptr, nullptr); }, InternalInconsistencyException),
        "Invalid parameter not satisfying: query");
    EXPECT_EQ(test::raisedReason([&] { store->tracksForUserIdentifier(nullptr, id.ptr(), nullptr); }, InternalInconsistencyException),
        "Invalid parameter not satisfying: userIdentifier");
    EXPECT_EQ(test::raisedReason([&] { store->tracksForSearchQuery(nullptr, nullptr); }, InternalInconsistencyException),
        "Invalid parameter not satisfying: query");
}

TEST_F(Collections, UploadsMapTheirTracksAndHandBackTheAnswer)
{
    auto upload = json(R"({"track[title]": "New", "track[sharing]": "private"})");
    int progressCalls = 0;
    RefPtr<Object> answer;
    store->postTrackWithTrackDictionary(
        upload.ptr(), [&](VXTrack* track, float progress) {
        ++progressCalls;
        EXPECT_TRUE(track);
        EXPECT_EQ(progress, 2.0f); }, [&](Object* result, Error*) { answer = result; });
    ASSERT_EQ(sent().size(), 1u);
    EXPECT_EQ(sent()[0].method, "POST");
    EXPECT_EQ(sent()[0].resource, "tracks");
    api().sendBytes(0, 50, 100);
    EXPECT_EQ(progressCalls, 1);
    api().finish(0, R"({"id": 90001, "title": "New", "state": "storing"})");
    ASSERT_TRUE(is<Dictionary>(answer.get())); // the answer as it came, not the track
    EXPECT_EQ(store->cachedResource<VXTrack>(text("90001").ptr())->title()->str(), "New");

    // Without a progress block the upload's own fields never become a track.
    int notifications = 0;
    auto observer = NotificationCenter::defaultCenter().addObserver(VXResourceAttributesDidChangeNotification, nullptr, [&](Notification&) { ++notifications; });
    store->postTrackWithTrackDictionary(upload.ptr(), nullptr, nullptr);
    api().sendBytes(1, 50, 100);
    EXPECT_EQ(notifications, 0);
    EXPECT_EQ(test::raisedReason([&] { store->postTrackWithTrackDictionary(nullptr, nullptr, nullptr); }, InternalInconsistencyException),
        "you need to provide track data to post");
}

TEST_F(Collections, CommentsAreSentInMillisecondsNarrowedToThirtyTwoBits)
{
    static const struct {
        double seconds;
        const char* sent;
    } cases[] = {
        { 12.3456, "12345" },
        { 0, "0" },
        { 2147483.647, "2147483647" },
        { 2147483.648, "-2147483648" },
        { 4294967.297, "1" },
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        store->postCommentWithTrackIdentifier(text("5").ptr(), text("hi").ptr(), cases[i].seconds, nullptr);
        EXPECT_EQ(parametersOf(sent().at(i))["comment[timestamp]"], cases[i].sent) << cases[i].seconds;
        EXPECT_EQ(sent()[i].resource, "tracks/5/comments");
    }
    EXPECT_EQ(test::raisedReason([&] { store->postCommentWithTrackIdentifier(text("5").ptr(), text("hi").ptr(), -1.0, nullptr); }, InternalInconsistencyException),
        "timestamp needs to be positive");
    EXPECT_EQ(test::raisedReason([&] { store->postCommentWithTrackIdentifier(text("5").ptr(), text("hi").ptr(), std::nan(""), nullptr); }, InternalInconsistencyException),
        "timestamp needs to be positive");
    EXPECT_EQ(test::raisedReason([&] { store->postCommentWithTrackIdentifier(nullptr, text("hi").ptr(), nullptr); }, InternalInconsistencyException),
        "Track identifier needed for comment");
    EXPECT_EQ(test::raisedReason([&] { store->postCommentWithTrackIdentifier(text("5").ptr(), Dictionary::create().ptr(), nullptr); }, InternalInconsistencyException),
        "Body needed for comment");

    RefPtr<VXComment> posted;
    store->postCommentWithTrackIdentifier(text("5").ptr(), text("untimed").ptr(), [&](VXComment* comment, Error*) { posted = comment; });
    EXPECT_EQ(parametersOf(sent().back()).count("comment[timestamp]"), 0u);
    api().finish(sent().size() - 1, R"({"id": 321, "body": "untimed", "track_id": 5})");
    ASSERT_TRUE(posted);
    EXPECT_EQ(posted.get(), store->cachedResource<VXComment>(text("321").ptr()).get());
}
