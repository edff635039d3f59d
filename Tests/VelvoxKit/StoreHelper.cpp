// A child process for the store's tests of what survives a process:
//   StoreHelper save-loop           fills the identity map and saves it again and again (until killed)
//   StoreHelper session URL TOKEN   signs in to a service, fetches a track, plays it, and terminates
//   StoreHelper report              prints what a new store finds on disk
//   StoreHelper comment URL TOKEN N comments "note N" on track 20005 through the journal of
//                                   changes ("" for none), prints "made N", and sends what waits
// The data folder is $XDG_DATA_HOME, as for any program using the store.

#include <Platform/Platform.h>
#include <VelvoxKit/VXResourceController.h>

#include <cstdio>
#include <cstring>
#include <string>

using namespace velvox;

namespace {

Ref<Dictionary> trackRecord(int identifier, int version)
{
    auto record = MutableDictionary::create();
    record->setObject(Number::create(identifier), "id");
    record->setObject(String::format("Track %d version %d", identifier, version), "title");
    record->setObject(String::create("finished"), "state");
    record->setObject(Number::create(1000 + identifier % 7), "user_id");
    record->setObject(String::format("tag%d other", version), "tag_list");
    return record;
}

int saveLoop()
{
    auto store = VXResourceController::create();
    store->setMeUserIdentifier(String::create("4242").ptr());
    for (int version = 0;; ++version) {
        // Two alternating contents of different sizes, so a torn file would show.
        int count = version % 2 ? 400 : 250;
        store->clearResourceCache();
        for (int i = 0; i < count; ++i)
            store->trackWithTrackDictionary(trackRecord(i, version).ptr());
        store->registerTrackPlayedForIdentifier(String::format("%d", version).ptr());
        store->applicationWillTerminate(nullptr);
        printf("saved %d\n", version);
        fflush(stdout);
    }
}

int session(const char* baseURL, const char* token)
{
    auto api = VXVelvoxAPI::create(baseURL, token);
    if (!api)
        return 2;
    auto& store = VXResourceController::sharedResourceController();
    store.setApiController(VXAPIController::create(api.get()).ptr());
    bool done = false;
    store.meUserForceRefresh(true, [&](VXUser* user, Error*) {
        printf("me %s\n", user ? user->resourceIdentifier()->utf8() : "(none)");
        done = true;
    });
    RunLoop::current().runUntil([&] { return done; }, 20);
    done = false;
    RefPtr<VXTrack> fetched;
    store.trackForIdentifier(String::create("20003").ptr(), false, [&](VXTrack* track, Error*) {
        fetched = track;
        done = true;
    });
    RunLoop::current().runUntil([&] { return done; }, 20);
    if (!fetched || !store.meUserIdentifier())
        return 1;
    fetched->setUnplayed(false);
    printf("played %s\n", fetched->resourceIdentifier()->utf8());
    NotificationCenter::defaultCenter().postNotification(ApplicationWillTerminateNotification);
    return 0;
}

int report()
{
    auto store = VXResourceController::create();
    auto statistics = store->resourceCacheStatistics();
    for (auto& perClass : statistics.classes)
        printf("%s %zu\n", perClass.className.c_str(), perClass.objectCount);
    if (auto track = store->cachedResource<VXTrack>(String::create("20003").ptr()))
        printf("track %s\n", track->title()->utf8());
    // The account of the earlier run: its history is there once it is signed in again.
    store->setMeUserIdentifier(String::create(getenv("STORE_ME") ? getenv("STORE_ME") : "4242").ptr());
    printf("played-count %zu\n", store->playedTrackIdentifiers()->count());
    if (store->hasTrackBeenPlayedForTrackIdentifier(String::create("20003").ptr()))
        printf("played 20003\n");
    return 0;
}

int comment(const char* baseURL, const char* token, const char* number)
{
    auto api = VXVelvoxAPI::create(baseURL, token);
    if (!api)
        return 2;
    // Requests that get no answer give up soon: the change waits for the next run.
    api->setTimeout(0.4);
    VXResourceController::Options options;
    options.offlineChanges = true;
    auto store = VXResourceController::create(VXAPIController::create(api.get()).ptr(), options);
    VXResourceController::setSharedResourceController(store);
    if (*number) {
        store->postCommentWithTrackIdentifier(String::create("20005").ptr(), String::format("note %s", number).ptr(), [](VXComment*, Error*) {});
        printf("made %s\n", number);
        fflush(stdout);
    }
    store->sendQueuedChanges();
    RunLoop::current().runUntil([&] { return store->queuedChangeCount() == 0; }, 5);
    printf("waiting %zu\n", store->queuedChangeCount());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc >= 2 && !strcmp(argv[1], "save-loop"))
        return saveLoop();
    if (argc >= 4 && !strcmp(argv[1], "session"))
        return session(argv[2], argv[3]);
    if (argc >= 2 && !strcmp(argv[1], "report"))
        return report();
    if (argc >= 5 && !strcmp(argv[1], "comment"))
        return comment(argv[2], argv[3], argv[4]);
    fprintf(stderr, "usage: StoreHelper save-loop | session URL TOKEN | report\n");
    return 2;
}
