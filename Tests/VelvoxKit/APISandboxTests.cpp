// VXAPIController on the real client, against the sandbox service over loopback.

#include <JSONCodec/JSONCodec.h>
#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXAPIController.h>

#include <TestServer.h>

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace velvox;
using velvox::sandbox::Fault;
using velvox::sandbox::SandboxService;

namespace {

SandboxService* s_sandbox = nullptr;

// One sandbox for the whole suite, started before the first test.
class SandboxEnvironment final : public testing::Environment {
public:
    void SetUp() override
    {
        SandboxService::Options options;
        options.processingSeconds = 0.5;
        options.activityPageSize = 10;
        m_service = std::make_unique<SandboxService>(options);
        std::string error;
        ASSERT_TRUE(m_service->start(&error)) << error;
        s_sandbox = m_service.get();
    }
    void TearDown() override
    {
        m_service->stop();
        s_sandbox = nullptr;
    }

private:
    std::unique_ptr<SandboxService> m_service;
};

[[maybe_unused]] auto* const s_environment = testing::AddGlobalTestEnvironment(new SandboxEnvironment);

struct Answer {
    int calls { 0 };
    RefPtr<Object> json;
    RefPtr<Error> error;
};

VXAPICallbackBlock recorder(Answer& answer)
{
    return [&answer](VXAPIController*, Object* json, Error* error) {
        ++answer.calls;
        answer.json = json;
        answer.error = error;
    };
}

class APIOnSandbox : public testing::Test {
protected:
    void SetUp() override
    {
        s_sandbox->clearFaults();
        s_sandbox->resetRequestCounts();
        auto client = VXVelvoxAPI::create(s_sandbox->baseURL(), s_sandbox->token());
        ASSERT_TRUE(client);
        client->setTimeout(5);
        controller = VXAPIController::create(client.get());
    }
    void TearDown() override { s_sandbox->clearFaults(); }

    // Runs the loop until every answer has arrived once; nothing waits past the time-out.
    bool wait(std::initializer_list<Answer*> answers, double timeout = 10)
    {
        return RunLoop::current().runUntil(
            [&] {
                for (auto* answer : answers) {
                    if (!answer->calls)
                        return false;
                }
                return true;
            },
            timeout);
    }
    Dictionary* dictionary(const Answer& answer) { return dynamicDowncast<Dictionary>(answer.json.get()); }
    Array* array(const Answer& answer) { return dynamicDowncast<Array>(answer.json.get()); }
    Ref<String> meIdentifier() { return String::format("%lld", static_cast<long long>(s_sandbox->meUserIdentifier())); }

    RefPtr<VXAPIController> controller;
};

Ref<Dictionary> page(int limit, int offset)
{
    return Dictionary::create({ { "limit", Number::withInteger(limit).ptr() }, { "offset", Number::withInteger(offset).ptr() } });
}

} // namespace

TEST_F(APIOnSandbox, MeUserAndSingleResources)
{
    Answer me, user, track, missing;
    controller->meUserRessouce(recorder(me));
    controller->userRessouceWithIdentifer(String::create("1003").get(), recorder(user));
    controller->trackRessouceWithIdentifer(Number::withInteger(20005).get(), recorder(track));
    controller->trackRessouceWithIdentifer(Number::withInteger(1).get(), recorder(missing));
    ASSERT_TRUE(wait({ &me, &user, &track, &missing }));
    ASSERT_TRUE(dictionary(me)) << (me.error ? me.error->description()->str() : "");
    EXPECT_EQ(dictionary(me)->objectForKey<Number>("id")->integerValue(), s_sandbox->meUserIdentifier());
    EXPECT_TRUE(dictionary(me)->objectForKey("track_count"));
    EXPECT_EQ(dictionary(user)->objectForKey<Number>("id")->integerValue(), 1003);
    EXPECT_EQ(dictionary(track)->objectForKey<String>("created_at")->view(), "2011/03/29 23:04:53 +0000");
    EXPECT_TRUE(dictionary(track)->objectForKey<Dictionary>("user")->objectForKey<String>("avatar_url")->hasPrefix(s_sandbox->baseURL()));
    EXPECT_FALSE(missing.json);
    EXPECT_EQ(missing.error->code(), 404);
    EXPECT_EQ(missing.error->domain()->view(), VXVelvoxAPIErrorDomain);
    EXPECT_TRUE(missing.error->userInfo()->objectForKey<Data>(VXVelvoxAPIResponseBodyKey));
}

TEST_F(APIOnSandbox, IdenticalGETsReachTheServerOnce)
{
    Answer first, second, otherPage;
    controller->favoritesForCurrentUserWithParameters(page(5, 0).ptr(), recorder(first));
    controller->favoritesForCurrentUserWithParameters(page(5, 0).ptr(), recorder(second));
    controller->favoritesForCurrentUserWithParameters(page(5, 5).ptr(), recorder(otherPage));
    ASSERT_TRUE(wait({ &first, &second, &otherPage }));
    EXPECT_EQ(s_sandbox->requestCount("GET /me/favorites?limit=5&offset=0"), 1);
    EXPECT_EQ(s_sandbox->requestCount("GET /me/favorites?limit=5&offset=5"), 1);
    ASSERT_TRUE(array(first));
    EXPECT_EQ(array(first)->count(), 5u);
    EXPECT_TRUE(array(first)->isEqual(array(second)));
    EXPECT_NE(array(first), array(second));
    EXPECT_FALSE(array(first)->isEqual(array(otherPage)));
}

TEST_F(APIOnSandbox, ListsOfTheMeUserAndOfOtherUsers)
{
    Answer tracks, userTracks, favorites, followers, followings, connections, users, searchTracks, comments;
    controller->tracksForCurrentUserWithParameters(page(3, 0).ptr(), recorder(tracks));
    controller->tracksForUser(String::create("1004").get(), page(50, 0).ptr(), recorder(userTracks));
    controller->favoritesForUserIdentifer(String::create("1004").get(), nullptr, recorder(favorites));
    controller->followersForUserIdentifer(String::create("1004").get(), nullptr, recorder(followers));
    controller->followingsForUserIdentifer(String::create("1004").get(), nullptr, recorder(followings));
    controller->connectionsForUserIdentifer(String::create("1004").get(), nullptr, recorder(connections));
    controller->usersForSearch(String::create("_").get(), page(4, 0).ptr(), recorder(users));
    controller->tracksForSearch(String::create("night").get(), nullptr, recorder(searchTracks));
    controller->commentsForTrackIdentifer(String::create("20010").get(), recorder(comments));
    ASSERT_TRUE(wait({ &tracks, &userTracks, &favorites, &followers, &followings, &connections, &users, &searchTracks, &comments }));
    EXPECT_EQ(array(tracks)->count(), 3u);
    EXPECT_EQ(array(userTracks)->count(), 10u);
    for (auto* track : *array(userTracks))
        EXPECT_EQ(downcast<Dictionary>(track)->objectForKey<Number>("user_id")->integerValue(), 1004);
    EXPECT_TRUE(array(favorites));
    EXPECT_TRUE(array(followers));
    EXPECT_TRUE(array(followings));
    EXPECT_EQ(array(connections)->count(), 0u);
    EXPECT_EQ(array(users)->count(), 4u);
    EXPECT_GT(array(searchTracks)->count(), 0u);
    EXPECT_EQ(s_sandbox->requestCount("GET /tracks?q=night"), 1);
    ASSERT_TRUE(array(comments));
    for (auto* comment : *array(comments)) {
        auto* record = downcast<Dictionary>(comment);
        EXPECT_EQ(record->objectForKey<Number>("track_id")->integerValue(), 20010);
        EXPECT_TRUE(record->objectForKey<Dictionary>("user"));
    }
}

TEST_F(APIOnSandbox, ActivityFeedsPageByCursor)
{
    Answer first, exclusive;
    controller->incommingForCurrentUserWithParameters(nullptr, recorder(first));
    controller->exclusiveForCurrentUserWithParameters(nullptr, recorder(exclusive));
    ASSERT_TRUE(wait({ &first, &exclusive }));
    auto* collection = dictionary(first)->objectForKey<Array>("collection");
    ASSERT_EQ(collection->count(), 10u);
    auto* next = dictionary(first)->objectForKey<String>("next_href");
    ASSERT_TRUE(next);
    auto nextURL = URL::create(next->view());
    ASSERT_TRUE(nextURL);
    EXPECT_EQ(nextURL->query()->view(), "cursor=c10");
    for (auto* item : *dictionary(exclusive)->objectForKey<Array>("collection"))
        EXPECT_TRUE(downcast<Dictionary>(item)->objectForKey<String>("type")->hasSuffix("-sharing"));

    // The last page has no next_href.
    Answer last;
    controller->incommingForCurrentUserWithParameters(Dictionary::create({ { "cursor", String::create("c110").ptr() } }).ptr(), recorder(last));
    ASSERT_TRUE(wait({ &last }));
    EXPECT_EQ(dictionary(last)->objectForKey<Array>("collection")->count(), 10u);
    EXPECT_FALSE(dictionary(last)->objectForKey("next_href"));
}

TEST_F(APIOnSandbox, FollowingChangesWhatLaterAnswersShow)
{
    auto other = String::create("1011");
    auto followed = [&] {
        Answer check;
        controller->meIsFollowingUserForIdentifier(other, recorder(check));
        EXPECT_TRUE(wait({ &check }));
        if (check.error) {
            EXPECT_EQ(check.error->code(), 404);
        }
        return !check.error;
    };
    // Both pairs of operations: with a leading "/" and without.
    Answer start, stop, follow, unfollow, followerCheck;
    controller->startFollowingUserForIdentifier(other, recorder(start));
    ASSERT_TRUE(wait({ &start }));
    EXPECT_FALSE(start.error);
    EXPECT_EQ(dictionary(start)->objectForKey<Number>("id")->integerValue(), 1011);
    EXPECT_TRUE(followed());
    controller->stopFollowingByUserForIdentifier(other, recorder(stop));
    ASSERT_TRUE(wait({ &stop }));
    EXPECT_FALSE(stop.error);
    EXPECT_FALSE(followed());
    controller->followUserWithIdentifer(other, recorder(follow));
    ASSERT_TRUE(wait({ &follow }));
    EXPECT_FALSE(follow.error);
    EXPECT_EQ(s_sandbox->requestCount("PUT /me/followings/1011"), 2);
    EXPECT_TRUE(followed());
    controller->unfollowUserWithIdentifer(other, recorder(unfollow));
    ASSERT_TRUE(wait({ &unfollow }));
    EXPECT_FALSE(unfollow.error);
    EXPECT_FALSE(followed());
    // Whether 1011 follows the me user: the catalogue decides; either answer is well-formed.
    controller->meIsFollowedByUserForIdentifier(other, recorder(followerCheck));
    ASSERT_TRUE(wait({ &followerCheck }));
    EXPECT_TRUE(followerCheck.error ? followerCheck.error->code() == 404 : is<Dictionary>(followerCheck.json));
}

namespace {

// A collection page as a remote collection would ask for it.
class FavoritesPage final : public VXAPICollectionRequest {
public:
    FavoritesPage(int limit, int offset)
        : m_parameters(page(limit, offset))
    {
    }
    Ref<String> resource() const override { return String::create("me/favorites"); }
    RefPtr<Dictionary> requestParameters() const override { return m_parameters; }

private:
    Ref<Dictionary> m_parameters;
};

} // namespace

TEST_F(APIOnSandbox, CollectionsLoadTheirPages)
{
    Answer first, again, second;
    controller->loadForCollectionController(FavoritesPage(3, 0), recorder(first));
    controller->loadForCollectionController(FavoritesPage(3, 0), recorder(again));
    controller->loadForCollectionController(FavoritesPage(3, 3), recorder(second));
    ASSERT_TRUE(wait({ &first, &again, &second }));
    EXPECT_EQ(s_sandbox->requestCount("GET /me/favorites?limit=3&offset=0"), 1);
    EXPECT_EQ(s_sandbox->requestCount("GET /me/favorites?limit=3&offset=3"), 1);
    EXPECT_EQ(array(first)->count(), 3u);
    EXPECT_TRUE(array(first)->isEqual(array(again)));
    EXPECT_FALSE(array(first)->isEqual(array(second)));
}

TEST_F(APIOnSandbox, FavoritesAndComments)
{
    auto track = String::create("20042");
    Answer favorite, favorites, unfavorite, posted, comments;
    controller->favoriteTrackIdentifer(track, recorder(favorite));
    ASSERT_TRUE(wait({ &favorite }));
    EXPECT_FALSE(favorite.error);
    controller->favoritesForCurrentUserWithParameters(page(200, 0).ptr(), recorder(favorites));
    ASSERT_TRUE(wait({ &favorites }));
    bool found = false;
    for (auto* item : *array(favorites))
        found |= downcast<Dictionary>(item)->objectForKey<Number>("id")->integerValue() == 20042;
    EXPECT_TRUE(found);
    controller->unfavoriteTrackIdentifer(track, recorder(unfavorite));
    ASSERT_TRUE(wait({ &unfavorite }));
    EXPECT_FALSE(unfavorite.error);

    auto comment = Dictionary::create({ { "comment[body]", String::create("Lovely bridge").ptr() }, { "comment[timestamp]", Number::withInteger(61500).ptr() } });
    controller->postCommentForTrackIdentifer(track, comment.ptr(), recorder(posted));
    ASSERT_TRUE(wait({ &posted }));
    ASSERT_TRUE(dictionary(posted)) << posted.error->description()->str();
    EXPECT_EQ(dictionary(posted)->objectForKey<Number>("timestamp")->integerValue(), 61500);
    controller->commentsForTrackIdentifer(track, recorder(comments));
    ASSERT_TRUE(wait({ &comments }));
    bool listed = false;
    for (auto* item : *array(comments))
        listed |= downcast<Dictionary>(item)->objectForKey<String>("body")->isEqualToString("Lovely bridge");
    EXPECT_TRUE(listed);
}

TEST_F(APIOnSandbox, UploadReportsProgressAndEndsWithTheCreatedTrack)
{
    std::string audio(3 * 1024 * 1024, '\x5a');
    auto upload = Dictionary::create({
        { "track[title]", String::create("Loopback Session").ptr() },
        { "track[sharing]", String::create("private").ptr() },
        { "track[asset_data]", Data::create(audio).ptr() },
    });
    std::vector<float> progress;
    Answer created;
    controller->postTrack(
        upload.ptr(), [&](VXAPIController*, float value) { progress.push_back(value); }, recorder(created));
    ASSERT_TRUE(wait({ &created }, 20));
    ASSERT_TRUE(dictionary(created)) << (created.error ? created.error->description()->str() : "");
    EXPECT_EQ(dictionary(created)->objectForKey<String>("state")->view(), "storing");
    EXPECT_EQ(dictionary(created)->objectForKey<String>("title")->view(), "Loopback Session");
    ASSERT_FALSE(progress.empty());
    EXPECT_EQ(progress.back(), 1.0f);
    for (size_t i = 1; i < progress.size(); ++i)
        EXPECT_LE(progress[i], progress[i - 1]); // total ÷ sent falls toward 1

    // A while later the service has finished processing it.
    auto identifier = dictionary(created)->objectForKey<Number>("id");
    RunLoop::current().runFor(0.6);
    Answer later;
    controller->trackRessouceWithIdentifer(identifier, recorder(later));
    ASSERT_TRUE(wait({ &later }));
    EXPECT_EQ(dictionary(later)->objectForKey<String>("state")->view(), "finished");
}

TEST_F(APIOnSandbox, AWrongTokenIsRefusedWith401)
{
    auto client = VXVelvoxAPI::create(s_sandbox->baseURL(), "not-the-token");
    auto refused = VXAPIController::create(client.get());
    std::vector<std::string> lines;
    auto old = setLogSink([&](std::string_view line) { lines.emplace_back(line); });
    Answer me;
    refused->meUserRessouce(recorder(me));
    bool done = wait({ &me });
    setLogSink(std::move(old));
    ASSERT_TRUE(done);
    EXPECT_EQ(me.error->code(), 401);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "VXAPIController could not complete request, because the API is not correctly authenticed.");
}

TEST_F(APIOnSandbox, PathsWithAndWithoutALeadingSlashReachTheSameURL)
{
    auto client = VXVelvoxAPI::create(s_sandbox->baseURL() + "/", s_sandbox->token());
    EXPECT_EQ(client->URLForResource("/me/favorites", nullptr), client->URLForResource("me/favorites", nullptr));
    EXPECT_EQ(client->URLForResource("users", Dictionary::create({ { "q", String::create("a b&c").ptr() } }).ptr()),
        s_sandbox->baseURL() + "/users?q=a%20b%26c");
    EXPECT_FALSE(VXVelvoxAPI::create("not a url", "token"));
}

namespace {

struct FaultCase {
    const char* name;
    Fault fault;
    // What each waiting block gets.
    bool expectJSON;
    bool expectError;
};

} // namespace

TEST_F(APIOnSandbox, EveryFaultEndsInExactlyOneCallOfEachBlock)
{
    controller->api()->setTimeout(1.5);
    const FaultCase cases[] = {
        { "latency", { Fault::Kind::Latency, "/me", 0, 0.3, 1 }, true, false },
        { "status", { Fault::Kind::Status, "/me", 503, 0, 1 }, false, true },
        { "not JSON", { Fault::Kind::NotJSON, "/me", 0, 0, 1 }, false, false },
        { "cut off", { Fault::Kind::CutOff, "/me", 0, 0, 1 }, false, true },
        { "dropped", { Fault::Kind::Drop, "/me", 0, 0, 1 }, false, true },
        { "no answer", { Fault::Kind::NoAnswer, "/me", 0, 0, 1 }, false, true },
    };
    for (auto& c : cases) {
        s_sandbox->clearFaults();
        s_sandbox->addFault(c.fault);
        Answer first, second;
        controller->meUserRessouce(recorder(first));
        controller->meUserRessouce(recorder(second));
        ASSERT_TRUE(wait({ &first, &second }, 10)) << c.name;
        RunLoop::current().runFor(0.05); // nothing more may arrive
        for (auto* answer : { &first, &second }) {
            EXPECT_EQ(answer->calls, 1) << c.name;
            EXPECT_EQ(!!answer->json, c.expectJSON) << c.name;
            EXPECT_EQ(!!answer->error, c.expectError) << c.name;
        }
        if (c.fault.kind == Fault::Kind::Status) {
            EXPECT_EQ(first.error->code(), 503);
        } else if (c.expectError) {
            EXPECT_EQ(first.error->domain()->view(), URLErrorDomain) << c.name;
            EXPECT_FALSE(first.error->localizedDescription()->isEmpty());
        }
    }
    s_sandbox->clearFaults();
}

TEST_F(APIOnSandbox, ARefusedConnectionFailsWithAnErrorThatSaysSo)
{
    auto client = VXVelvoxAPI::create(format("http://127.0.0.1:%d", test::refusingLoopbackPort()), "token");
    auto nowhere = VXAPIController::create(client.get());
    Answer me;
    nowhere->meUserRessouce(recorder(me));
    ASSERT_TRUE(wait({ &me }));
    EXPECT_EQ(me.error->domain()->view(), URLErrorDomain);
    EXPECT_EQ(me.error->code(), 7); // couldn't connect
    EXPECT_NE(me.error->localizedDescription()->view().find("onnect"), std::string_view::npos);
}

TEST_F(APIOnSandbox, DestroyingTheControllerEndsItsRequestsSilently)
{
    s_sandbox->addFault({ Fault::Kind::Latency, "/me", 0, 0.3, 1 });
    Answer me;
    controller->meUserRessouce(recorder(me));
    controller = nullptr;
    RunLoop::current().runFor(0.6);
    EXPECT_EQ(me.calls, 0);
}
