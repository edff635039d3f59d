// VXAPIController driven by a client of the test's own, for what a network
// makes hard to provoke: ordering, recursion, replaced entries, progress.

#include <Platform/Platform.h>
#include <VelvoxKit/VXAPIController.h>

#include <FakeAPI.h>
#include <TestSupport.h>

#include <gtest/gtest.h>

using namespace velvox;
using velvox::test::FakeAPI;
using velvox::test::SentRequest;

namespace {

struct Harness {
    Ref<FakeAPI> prototype = FakeAPI::create();
    Ref<VXAPIController> controller = VXAPIController::create(prototype.ptr());
    FakeAPI& api() { return static_cast<FakeAPI&>(*controller->api()); }
    std::vector<SentRequest>& sent() { return api().log(); }
};

Ref<Dictionary> params(std::initializer_list<std::pair<std::string_view, Object*>> entries)
{
    return Dictionary::create(entries);
}

std::string raised(const std::function<void()>& action)
{
    return test::raisedNameAndReason(action);
}

} // namespace

TEST(VXAPIController, RequestIdentifiers)
{
    Harness h;
    auto& c = *h.controller;
    EXPECT_EQ(c.uniqIdentifierForPerformingMethod(*String::create("GET"), *String::create("/me"), nullptr)->view(), "GET-/me-");
    auto page = params({ { "offset", Number::withInteger(0).ptr() }, { "limit", Number::withInteger(50).ptr() } });
    auto same = params({ { "limit", String::create("50").ptr() }, { "offset", String::create("0").ptr() } });
    EXPECT_EQ(c.uniqIdentifierForPerformingMethod(*String::create("GET"), *String::create("me/favorites"), page.ptr())->view(),
        "GET-me/favorites-limit=50-offset=0");
    EXPECT_EQ(c.uniqIdentifierForPerformingMethod(*String::create("GET"), *String::create("me/favorites"), same.ptr())->view(),
        "GET-me/favorites-limit=50-offset=0");
    auto search = params({ { "q", String::create("night").ptr() }, { "limit", Number::withInteger(10).ptr() } });
    EXPECT_EQ(c.uniqIdentifierForPerformingMethod(*String::create("GET"), *String::create("users"), search.ptr())->view(), "GET-users-limit=10-q=night");
    // Literal, case-sensitive order: capitals first.
    auto mixed = params({ { "b", Number::withInteger(1).ptr() }, { "B", Number::withInteger(2).ptr() } });
    EXPECT_EQ(c.uniqIdentifierForPerformingMethod(*String::create("PUT"), *String::create("x"), mixed.ptr())->view(), "PUT-x-B=2-b=1");
}

TEST(VXAPIController, IdenticalGETsShareOneRequestAndAnswerInOrder)
{
    Harness h;
    std::vector<std::pair<int, Object*>> calls;
    auto block = [&](int caller) {
        return [&, caller](VXAPIController* controller, Object* json, Error* error) {
            EXPECT_EQ(controller, h.controller.ptr());
            EXPECT_EQ(error, nullptr);
            EXPECT_TRUE(is<Array>(json));
            json->ref(); // keep each tree alive to compare identities
            calls.emplace_back(caller, json);
        };
    };
    auto page = params({ { "limit", Number::withInteger(20).ptr() }, { "offset", Number::withInteger(0).ptr() } });
    h.controller->favoritesForCurrentUserWithParameters(page.ptr(), block(1));
    h.controller->favoritesForCurrentUserWithParameters(page.ptr(), block(2));
    ASSERT_EQ(h.sent().size(), 1u);
    EXPECT_EQ(h.sent()[0].method, "GET");
    EXPECT_EQ(h.sent()[0].resource, "/me/favorites");
    // Only the identifier travels to the client.
    EXPECT_EQ(h.sent()[0].userInfo->count(), 1u);
    EXPECT_EQ(h.sent()[0].userInfo->objectForKey<String>(VXAPIRequestIdentifierKey)->view(), "GET-/me/favorites-limit=20-offset=0");
    EXPECT_EQ(h.controller->runningConnections().count(), 1u);
    h.api().finish(0, R"([{"id":1}])");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].first, 1);
    EXPECT_EQ(calls[1].first, 2);
    EXPECT_NE(calls[0].second, calls[1].second); // each caller decodes its own
    EXPECT_TRUE(calls[0].second->isEqual(calls[1].second));
    EXPECT_EQ(h.controller->runningConnections().count(), 0u);
    EXPECT_FALSE(h.controller->executingCallbacksRequestIdentifier());
    for (auto& call : calls)
        call.second->deref();
}

TEST(VXAPIController, ASameGETFromItsOwnCallbackIsSentOnceThenRaises)
{
    Harness h;
    int calls = 0;
    std::string exception;
    h.controller->meUserRessouce([&](VXAPIController* controller, Object*, Error*) {
        ++calls;
        controller->meUserRessouce([](VXAPIController*, Object*, Error*) {}); // a fresh request
        try {
            controller->meUserRessouce([](VXAPIController*, Object*, Error*) {});
        } catch (const Exception& e) {
            exception = e.name() + ": " + e.reason();
            EXPECT_EQ(e.userInfo()->objectForKey<String>(VXAPIRequestIdentifierKey)->view(), "GET-/me-");
        }
    });
    h.api().finish(0, "{}");
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(h.sent().size(), 2u);
    EXPECT_EQ(exception,
        "VXRecursiveRequestCallbackException: A callback for requestId GET-/me- tried to start a request with the same id. Ignoring the request, but you should fix this.");
}

TEST(VXAPIController, ASecondIdenticalPOSTReplacesTheFirstsCallers)
{
    Harness h;
    std::vector<std::string> calls;
    auto comment = params({ { "comment[body]", String::create("nice").ptr() } });
    h.controller->postCommentForTrackIdentifer(String::create("7").get(), comment.ptr(), [&](VXAPIController*, Object* json, Error*) {
        calls.push_back("first:" + json->description()->str());
    });
    h.controller->postCommentForTrackIdentifer(String::create("7").get(), comment.ptr(), [&](VXAPIController*, Object* json, Error*) {
        calls.push_back("second:" + downcast<Dictionary>(json)->objectForKey<Number>("id")->stringValue()->str());
    });
    ASSERT_EQ(h.sent().size(), 2u);
    EXPECT_EQ(h.sent()[0].resource, "tracks/7/comments");
    h.api().finish(0, R"({"id":1})");
    h.api().finish(1, R"({"id":2})");
    EXPECT_EQ(calls, (std::vector<std::string> { "second:1" }));
}

TEST(VXAPIController, ProgressQuotientAndProgressOnlyCallers)
{
    Harness h;
    std::vector<float> progress;
    int completions = 0;
    auto upload = params({ { "track[title]", String::create("demo").ptr() } });
    h.controller->postTrack(
        upload.ptr(), [&](VXAPIController*, float value) { progress.push_back(value); },
        [&](VXAPIController*, Object*, Error*) { ++completions; });
    ASSERT_EQ(h.sent().size(), 1u);
    EXPECT_EQ(h.sent()[0].method, "POST");
    EXPECT_EQ(h.sent()[0].resource, "tracks");
    h.api().sendBytes(0, 250, 1000);
    h.api().sendBytes(0, 600, 1000);
    h.api().sendBytes(0, 1000, 1000);
    h.api().sendBytes(0, 0, 1000); // never reported by a real client; ignored
    EXPECT_EQ(progress, (std::vector<float> { 4.0f, 1.0f, 1.0f }));
    h.api().finish(0, "{}");
    EXPECT_EQ(completions, 1);

    // A caller with only a progress block hears progress and nothing else.
    auto progressOnly = Dictionary::create({ { VXAPIProgressBlockKey,
        VXAPIProgressBlockObject::create([&](VXAPIController*, float value) { progress.push_back(value); }).get() } });
    h.controller->performMethod(*String::create("POST"), *String::create("tracks"), upload.ptr(), nullptr, progressOnly.ptr());
    h.api().sendBytes(1, 1, 3);
    h.api().finish(1, "{}");
    EXPECT_EQ(progress.back(), 3.0f);
    EXPECT_EQ(completions, 1);
}

TEST(VXAPIController, FailuresAndTheAuthenticationLogLine)
{
    Harness h;
    std::vector<std::string> events;
    auto old = setLogSink([&](std::string_view line) { events.emplace_back(line); });
    h.controller->meUserRessouce([&](VXAPIController*, Object* json, Error* error) {
        EXPECT_EQ(json, nullptr);
        events.push_back(format("block %lld", static_cast<long long>(error->code())));
    });
    h.api().fail(0, 401);
    h.controller->meUserRessouce([&](VXAPIController*, Object*, Error* error) { events.push_back(format("block %lld", static_cast<long long>(error->code()))); });
    h.api().fail(1, 403);
    setLogSink(std::move(old));
    EXPECT_EQ(events, (std::vector<std::string> { "block 401", "VXAPIController could not complete request, because the API is not correctly authenticed.", "block 403" }));
}

TEST(VXAPIController, ABodyThatIsNotJSONGivesNilAndNil)
{
    Harness h;
    int calls = 0;
    h.controller->meUserRessouce([&](VXAPIController*, Object* json, Error* error) {
        EXPECT_EQ(json, nullptr);
        EXPECT_EQ(error, nullptr);
        ++calls;
    });
    h.api().finish(0, "<html>oops</html>");
    EXPECT_EQ(calls, 1);
}

TEST(VXAPIController, WithoutAClientNothingIsSent)
{
    auto controller = VXAPIController::create(nullptr);
    bool called = false;
    controller->meUserRessouce([&](VXAPIController*, Object*, Error*) { called = true; });
    EXPECT_EQ(controller->runningConnections().count(), 0u);
    EXPECT_FALSE(called);
}

TEST(VXAPIController, EndpointPathsVerbsAndArguments)
{
    Harness h;
    auto none = [](VXAPIController*, Object*, Error*) {};
    auto seven = Number::withInteger(7);
    h.controller->followUserWithIdentifer(seven, none);
    h.controller->startFollowingUserForIdentifier(seven, none);
    h.controller->unfollowUserWithIdentifer(String::create("7").get(), none);
    h.controller->stopFollowingByUserForIdentifier(String::create("7").get(), none);
    h.controller->usersForSearch(String::create("b").get(), params({ { "q", String::create("a").ptr() }, { "limit", Number::withInteger(10).ptr() } }).ptr(), none);
    h.controller->tracksForSearch(String::create("night").get(), nullptr, none);
    h.controller->favoriteTrackIdentifer(seven, none);
    h.controller->commentsForTrackIdentifer(seven, none);
    h.controller->trackRessouceWithIdentifer(seven, none);
    h.controller->userRessouceWithIdentifer(seven, none);
    h.controller->connectionsForUserIdentifer(seven, nullptr, none);
    h.controller->exclusiveForCurrentUserWithParameters(nullptr, none);
    h.controller->incommingForCurrentUserWithParameters(nullptr, none);
    const std::pair<const char*, const char*> expected[] = {
        { "PUT", "me/followings/7" },
        { "PUT", "/me/followings/7" },
        { "DELETE", "me/followings/7" },
        { "DELETE", "/me/followings/7" },
        { "GET", "users" },
        { "GET", "tracks" },
        { "PUT", "me/favorites/7" },
        { "GET", "tracks/7/comments" },
        { "GET", "tracks/7" },
        { "GET", "/users/7" },
        { "GET", "/users/7/connections" },
        { "GET", "/me/activities/tracks/exclusive" },
        { "GET", "/me/activities/tracks" },
    };
    ASSERT_EQ(h.sent().size(), std::size(expected));
    for (size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(h.sent()[i].method, expected[i].first) << i;
        EXPECT_EQ(h.sent()[i].resource, expected[i].second) << i;
    }
    auto* search = h.sent()[4].parameters.get();
    EXPECT_EQ(search->count(), 2u);
    EXPECT_EQ(search->objectForKey<String>("q")->view(), "b");
    EXPECT_EQ(h.sent()[5].parameters->count(), 1u);

    static const struct {
        std::function<void(VXAPIController&)> call;
        const char* message;
    } asserts[] = {
        { [](VXAPIController& c) { c.meIsFollowingUserForIdentifier(nullptr, [](auto, auto, auto) {}); }, "userIdentifier required for following check" },
        { [](VXAPIController& c) { c.meIsFollowedByUserForIdentifier(nullptr, [](auto, auto, auto) {}); }, "userIdentifier required for follower check" },
        { [](VXAPIController& c) { c.startFollowingUserForIdentifier(nullptr, [](auto, auto, auto) {}); }, "userIdentifier required to start following a user" },
        { [](VXAPIController& c) { c.stopFollowingByUserForIdentifier(nullptr, [](auto, auto, auto) {}); }, "userIdentifier required to stop following a user" },
        { [](VXAPIController& c) { c.tracksForUser(nullptr, nullptr, [](auto, auto, auto) {}); }, "You need to give a userID" },
        { [](VXAPIController& c) { c.usersForSearch(nullptr, nullptr, [](auto, auto, auto) {}); }, "You need to provide a query to search for users" },
        { [](VXAPIController& c) { c.tracksForSearch(nullptr, nullptr, [](auto, auto, auto) {}); }, "You need to provide a query to search for tracks" },
        { [](VXAPIController& c) { c.trackRessouceWithIdentifer(nullptr, [](auto, auto, auto) {}); }, "You need to give a trackId" },
        { [](VXAPIController& c) { c.postTrack(nullptr, nullptr, nullptr); }, "You need to give track parameters" },
        { [](VXAPIController& c) { c.unfavoriteTrackIdentifer(nullptr, [](auto, auto, auto) {}); }, "You need to give a trackID" },
        { [](VXAPIController& c) { c.postCommentForTrackIdentifer(nullptr, nullptr, [](auto, auto, auto) {}); }, "You need to provide a trackId to comment on" },
    };
    size_t before = h.sent().size();
    for (auto& a : asserts)
        EXPECT_EQ(raised([&] { a.call(*h.controller); }), std::string("NSInternalInconsistencyException: ") + a.message);
    EXPECT_EQ(h.sent().size(), before);
    // A null block cannot be stored, and nothing is sent.
    EXPECT_NE(raised([&] { h.controller->meUserRessouce(nullptr); }).find("NSInvalidArgumentException"), std::string::npos);
    EXPECT_EQ(h.sent().size(), before);
}

TEST(VXAPIController, UploadBlockRegistration)
{
    Harness h;
    auto upload = params({ { "track[title]", String::create("demo").ptr() } });
    h.controller->postTrack(upload.ptr(), nullptr, [](VXAPIController*, Object*, Error*) {});
    h.controller->postTrack(
        upload.ptr(), [](VXAPIController*, float) {}, nullptr);
    auto& callers = h.controller->runningConnections();
    auto* entry = downcast<Array>(callers.objectForKey(String::create("POST-tracks-track[title]=demo").ptr()));
    ASSERT_EQ(entry->count(), 1u);                                         // the second POST replaced the first's callers
    EXPECT_EQ(downcast<Dictionary>(entry->objectAtIndex(0))->count(), 0u); // no completion block: neither is registered
}
