// Revalidated answers: the client keeps what a service answered with
// validators and asks again conditionally. Against the sandbox (which tags
// its answers) through the store, and against servers of the test's own
// for what a service may send.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXResourceController.h>

#include <StoreFixture.h>
#include <TestServer.h>

#include <atomic>
#include <filesystem>

using namespace velvox;

namespace {

class Validators : public test::SandboxStoreFixture {
protected:
    VXVelvoxAPI& client() { return *store->apiController()->api(); }
    bool loadPage(VXRemoteCollectionController& list, ZURemoteCollectionReloadOperationType operation)
    {
        bool done = false;
        list.loadMoreItemsForReloadOperationType(operation, false, [&](Error* error) {
            EXPECT_FALSE(error);
            done = true;
        });
        return waitFor([&] { return done; });
    }
};

struct Recorder final : VXVelvoxAPIDelegate {
    RefPtr<Data> body;
    RefPtr<Error> error;
    VXVelvoxAPI::Delivery delivery;
    bool done { false };
    void velvoxAPIDidFinishWithData(VXVelvoxAPI& api, Data* data, Object*, Dictionary*) override
    {
        body = data;
        delivery = api.deliveryBeingMade();
        done = true;
    }
    void velvoxAPIDidFailWithError(VXVelvoxAPI&, Error* failure, Object*, Dictionary*) override
    {
        error = failure;
        done = true;
    }
    void velvoxAPIDidReceiveData(VXVelvoxAPI&, Data*, Object*, Dictionary*) override { }
    void velvoxAPIDidReceiveBytes(VXVelvoxAPI&, uint64_t, uint64_t, Object*, Dictionary*) override { }
    void velvoxAPIDidSendBytes(VXVelvoxAPI&, uint64_t, uint64_t, Object*, Dictionary*) override { }
};

struct Got {
    std::string body;
    long code { 0 }; // 200, or the error's code
    uint64_t notModified { 0 };
    uint64_t conditional { 0 };
    VXVelvoxAPI::Delivery delivery; // as the delegate was told it
};

// A GET through a copy of the client, as its controller would send it.
Got get(VXVelvoxAPI& api, const std::string& path)
{
    Recorder recorder;
    auto client = api.copyWithAPIDelegate(&recorder);
    client->performMethod(*String::create("GET"), *String::create(path), nullptr, nullptr, nullptr);
    EXPECT_TRUE(RunLoop::current().runUntil([&] { return recorder.done; }, 10));
    return { recorder.body ? std::string(recorder.body->view()) : std::string(), recorder.error ? static_cast<long>(recorder.error->code()) : 200,
        client->notModifiedCount(), client->conditionalRequestCount(), recorder.delivery };
}

} // namespace

TEST_F(Validators, AnUnchangedPageIsA304ThatMakesNoNewObjects)
{
    auto list = store->favoriteTracks();
    ASSERT_TRUE(loadPage(*list, ZURemoteCollectionReloadOperationType::Reload));
    auto first = list->items<VXTrack>();
    auto objects = store->resourceCacheStatistics().objectCount;
    EXPECT_EQ(client().notModifiedCount(), 0u);

    ASSERT_TRUE(loadPage(*list, ZURemoteCollectionReloadOperationType::Reload));
    EXPECT_EQ(client().conditionalRequestCount(), 1u);
    EXPECT_EQ(client().notModifiedCount(), 1u);
    EXPECT_EQ(store->resourceCacheStatistics().objectCount, objects);
    auto second = list->items<VXTrack>();
    ASSERT_EQ(second.size(), first.size());
    for (size_t i = 0; i < first.size(); ++i)
        EXPECT_EQ(second[i].ptr(), first[i].ptr());
    EXPECT_GE(client().keptAnswerCount(), 1u);
}

// A 304 hands back the very body the page was made from; its objects are
// taken again without reading it only while they are the map's and unchanged.
TEST_F(Validators, AnUnchangedPageIsReadAgainWhenItsObjectsChangedOrLeftTheMap)
{
    auto list = store->favoriteTracks();
    ASSERT_TRUE(loadPage(*list, ZURemoteCollectionReloadOperationType::Reload));
    auto first = list->items<VXTrack>();
    ASSERT_FALSE(first.empty());
    RefPtr<String> serviceTitle = first[0]->title();

    // Changed here since: the service's unchanged record applies again.
    first[0]->setTitle(String::create("edited here").ptr());
    int heard = 0;
    auto observation = first[0]->addObserver("title", [&](ZUObject&, const String&) { ++heard; });
    ASSERT_TRUE(loadPage(*list, ZURemoteCollectionReloadOperationType::Reload));
    EXPECT_EQ(client().notModifiedCount(), 1u);
    EXPECT_TRUE(first[0]->title()->isEqual(serviceTitle.get()));
    EXPECT_EQ(heard, 1);

    // Unchanged: the same objects, nothing announced.
    ASSERT_TRUE(loadPage(*list, ZURemoteCollectionReloadOperationType::Reload));
    EXPECT_EQ(client().notModifiedCount(), 2u);
    EXPECT_EQ(list->items<VXTrack>()[0].ptr(), first[0].ptr());
    EXPECT_EQ(heard, 1);

    // The map let its objects go: the page gives the map's new ones.
    store->clearResourceCache();
    ASSERT_TRUE(loadPage(*list, ZURemoteCollectionReloadOperationType::Reload));
    EXPECT_EQ(client().notModifiedCount(), 3u);
    auto again = list->items<VXTrack>();
    ASSERT_EQ(again.size(), first.size());
    EXPECT_NE(again[0].ptr(), first[0].ptr());
    EXPECT_EQ(store->cachedResource<VXTrack>(again[0]->resourceIdentifier()->view()).get(), again[0].ptr());
}

TEST_F(Validators, AChangedResourceIsA200WhoseValuesReachTheObservers)
{
    RefPtr<VXUser> user;
    auto fetch = [&] {
        user = nullptr;
        store->userForIdentifier("1003", true, [&](VXUser* answer, Error*) { user = answer; });
        return waitFor([&] { return user != nullptr; });
    };
    ASSERT_TRUE(fetch());
    auto followers = user->followersCount();
    int heard = 0;
    auto observation = user->addObserver("followersCount", [&](ZUObject&, const String&) { ++heard; });
    bool followed = false;
    store->startFollowingUserForIdentifier("1003", [&](Object*, Error*) { followed = true; });
    ASSERT_TRUE(waitFor([&] { return followed; }));
    ASSERT_TRUE(fetch());
    EXPECT_EQ(client().conditionalRequestCount(), 1u);
    EXPECT_EQ(client().notModifiedCount(), 0u);
    EXPECT_EQ(user->followersCount(), followers + 1);
    EXPECT_EQ(heard, 1);
}

TEST_F(Validators, WhatWasKeptOutlivesTheClientAndStaysWithItsAccount)
{
    auto answer = get(client(), "/users/1002").body;
    ASSERT_FALSE(answer.empty());
    // A new client, as a new run makes: the first request is already conditional.
    auto again = VXVelvoxAPI::create(service->baseURL(), service->token());
    auto second = get(*again, "/users/1002");
    EXPECT_EQ(second.body, answer);
    EXPECT_EQ(second.notModified, 1u);
    EXPECT_TRUE(second.delivery.notModified);
    EXPECT_EQ(second.delivery.status, 304);
    EXPECT_EQ(client().deliveryBeingMade().status, 0) << "outside a delivery";
    // Another account asks unconditionally (and is refused by the sandbox).
    auto other = VXVelvoxAPI::create(service->baseURL(), "another-token");
    auto stranger = get(*other, "/users/1002");
    EXPECT_EQ(stranger.code, 401);
    EXPECT_EQ(stranger.conditional, 0u);
    // Nothing of the token in the folder's files.
    for (auto& file : std::filesystem::directory_iterator(VXVelvoxAPI::AnswerCache::defaultPath())) {
        auto contents = Data::createWithContentsOfFile(file.path().string());
        ASSERT_TRUE(contents);
        EXPECT_EQ(contents->view().find(service->token()), std::string_view::npos);
        EXPECT_EQ(std::filesystem::status(file.path()).permissions() & std::filesystem::perms::others_read, std::filesystem::perms::none);
    }
    // Off: nothing conditional.
    auto plain = VXVelvoxAPI::create(service->baseURL(), service->token());
    VXVelvoxAPI::AnswerCache off;
    off.enabled = false;
    plain->setAnswerCache(off);
    auto unconditional = get(*plain, "/users/1002");
    EXPECT_EQ(unconditional.body, answer);
    EXPECT_EQ(unconditional.conditional, 0u);
}

TEST(ValidatorsOfAnyService, NoStoreHugeOrBrokenValidatorsAndStray304sAreHandled)
{
    test::TemporaryFolder folder;
    std::atomic<int> conditional { 0 };
    test::TestServer server;
    auto tagged = [&](const char* etag, const char* control) {
        return [&conditional, etag, control](const httplib::Request& request, httplib::Response& response) {
            if (request.has_header("If-None-Match")) {
                ++conditional;
                if (request.get_header_value("If-None-Match") == etag) {
                    response.status = 304;
                    return;
                }
            }
            response.set_header("ETag", etag);
            if (*control)
                response.set_header("Cache-Control", control);
            response.set_content("{\"id\":1}", "application/json");
        };
    };
    static const std::string huge = "\"" + std::string(5000, 'x') + "\"";
    server.routes().Get("/plain", tagged("\"a\"", ""));
    server.routes().Get("/secret", tagged("\"b\"", "private, no-store"));
    server.routes().Get("/huge", tagged(huge.c_str(), ""));
    server.routes().Get("/stray", [](const httplib::Request&, httplib::Response& response) { response.status = 304; });
    auto base = server.start();
    auto api = VXVelvoxAPI::create(base, "token");
    VXVelvoxAPI::AnswerCache inFolder;
    inFolder.path = folder.path() + "/answers";
    api->setAnswerCache(inFolder);

    EXPECT_EQ(get(*api, "/plain").notModified, 0u);
    auto second = get(*api, "/plain");
    EXPECT_EQ(second.body, "{\"id\":1}");
    EXPECT_EQ(second.notModified, 1u);
    size_t kept = api->keptAnswerCount();
    EXPECT_EQ(kept, 1u);
    for (const char* path : { "/secret", "/huge" }) {
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(get(*api, path).body, "{\"id\":1}") << path;
        EXPECT_EQ(api->keptAnswerCount(), kept) << path << " was kept";
    }
    EXPECT_EQ(conditional.load(), 1);
    // A 304 to a request that asked nothing is a failure, not an answer.
    auto stray = get(*api, "/stray");
    EXPECT_EQ(stray.body, "");
    EXPECT_EQ(stray.code, 304);

    // Damaged files read as nothing kept: the request goes unconditionally.
    for (auto& file : std::filesystem::directory_iterator(folder.path() + "/answers"))
        std::filesystem::resize_file(file.path(), 20);
    auto fresh = VXVelvoxAPI::create(base, "token");
    fresh->setAnswerCache(inFolder);
    auto unconditional = get(*fresh, "/plain");
    EXPECT_EQ(unconditional.body, "{\"id\":1}");
    EXPECT_EQ(unconditional.conditional, 0u);
}
