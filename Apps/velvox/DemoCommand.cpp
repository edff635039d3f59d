// velvox demo: one scripted run on the embedded sandbox that shows the
// framework end to end, saying what it does at each step.

#include "Commands.h"
#include "Session.h"

#include <VelvoxKit/VXActivity.h>
#include <Views/VXDashboardFeed.h>
#include <Views/VXViewRenderer.h>

#include <cstdio>
#include <filesystem>

namespace velvox::app {

namespace {

void step(const char* text)
{
    printf("\n== %s\n", text);
    fflush(stdout);
}

} // namespace

int runDemo(const ServiceOptions& options, const std::string& output)
{
    ServiceOptions demoOptions = options;
    demoOptions.baseURL.clear(); // always the embedded sandbox
    // A folder of its own, emptied first: every tour tells the same story
    // (the sandbox gives the upload the same identifier each time, which an
    // earlier tour's history would call played).
    demoOptions.folderName = "demo";
    std::error_code ignored;
    std::filesystem::remove_all(serviceDataHome(demoOptions.folderName), ignored);
    Session session(demoOptions);
    if (int code = session.open("demo"))
        return code;
    auto& store = session.store();
    int code = ExitSuccess;

    step("Signing in: the store asks \"/me\" and loads that account's play history");
    auto me = session.signIn(code);
    if (!me)
        return session.finish(code);
    printf("Signed in as %s (%s, %s); %llu tracks, %llu followers.\n", me->username()->utf8(), me->fullName() ? me->fullName()->utf8() : "",
        me->city() ? me->city()->utf8() : "", static_cast<unsigned long long>(me->trackCount()), static_cast<unsigned long long>(me->followersCount()));

    step("The dashboard: a cursor-paged feed of activities, two pages");
    auto feed = store.incomingActivities();
    for (int page = 0; page < 2 && (page == 0 || feed->hasMoreItems()); ++page) {
        feed->loadMoreItemsForReloadOperationType(page ? ZURemoteCollectionReloadOperationType::LoadMore : ZURemoteCollectionReloadOperationType::Reload, page > 0);
        session.waitFor([&] { return !feed->isLoadingItems(); });
        printf("Page %d: %zu activities in the list, next cursor %s.\n", page + 1, feed->items().count(), feed->cursor() ? feed->cursor()->utf8() : "(none)");
    }
    for (size_t i = 0; i < std::min<size_t>(3, feed->items().count()); ++i) {
        auto* activity = downcast<VXActivity>(feed->items()[i]);
        if (activity->track())
            printf("  %s — %s\n", activity->track()->title()->utf8(), relativeDate(activity->createdAt()).c_str());
    }

    step("A profile: user 1004, fetched in full and kept in the identity map");
    RefPtr<VXUser> other;
    store.userForIdentifier(String::create("1004").ptr(), true, [&](VXUser* user, Error*) { other = user; });
    session.waitFor([&] { return other.get() != nullptr; });
    if (other)
        printf("%s: %llu tracks, full record: %s.\n", other->username()->utf8(), static_cast<unsigned long long>(other->trackCount()),
            other->hasFullUserRepresentation() ? "yes" : "no");

    if (other) {
        step("Following and unfollowing: the user's followedByMe flag follows the service");
        other->isFollowedByMe(true);
        session.waitFor([&] { return other->isFollowedByMe() != -2; });
        printf("Followed by me: %d.\n", other->isFollowedByMe());
        int32_t before = other->isFollowedByMe();
        other->setFollowedByMe(before == 1 ? 0 : 1);
        session.waitFor([&] { return other->isFollowedByMe() != before; });
        printf("After %s: %d.\n", before == 1 ? "unfollowing" : "following", other->isFollowedByMe());
        other->setFollowedByMe(before == 1 ? 1 : 0);
        session.waitFor([&] { return other->isFollowedByMe() == before; });
        printf("And back: %d.\n", other->isFollowedByMe());
    }

    step("A timed comment on track 20005, 12.5 seconds in");
    RefPtr<VXComment> comment;
    store.postCommentWithTrackIdentifier(String::create("20005").ptr(), String::create("Lovely drop here.").ptr(), 12.5,
        [&](VXComment* posted, Error*) { comment = posted; });
    session.waitFor([&] { return comment.get() != nullptr; });
    if (comment)
        printf("Comment %s posted at %s.\n", comment->resourceIdentifier()->utf8(), durationText(comment->timestamp()).c_str());

    step("An upload of Resources/samples/demo.wav, followed until the service has processed it");
    RefPtr<VXTrack> uploaded;
    if (auto path = Bundle::mainBundle().pathForResource("samples/demo", "wav")) {
        auto fields = Dictionary::create({ { "track[title]", String::create("Demo Tone").ptr() },
            { "track[asset_data]", URL::create("file://" + percentEncodePath(*path)).get() } });
        RefPtr<Dictionary> answer;
        int progressCalls = 0;
        store.postTrackWithTrackDictionary(
            fields.ptr(), [&](VXTrack*, float) { ++progressCalls; }, [&](Object* json, Error*) { answer = dynamicDowncast<Dictionary>(json); });
        session.waitFor([&] { return answer.get() != nullptr; }, 60);
        if (answer) {
            auto identifier = answer->objectForKey("id")->description();
            printf("Uploaded as track %s (%d progress reports); state: storing.\n", identifier->utf8(), progressCalls);
            store.trackForIdentifier(identifier.ptr(), true, [&](VXTrack* track, Error*) { uploaded = track; });
            session.waitFor([&] { return uploaded.get() != nullptr; });
            if (uploaded) {
                printf("The store polls it every %g s while the service processes it...\n", std::max(2 * uploaded->duration(), 2.0));
                session.waitFor([&] { return uploaded->state() == VXTrackStateFinished || uploaded->state() == VXTrackStateFailed; }, 60);
                printf("State: %s.\n", uploaded->state() == VXTrackStateFinished ? "finished" : "not finished");
            }
        }
    }

    step("Playing the uploaded track: the play is kept in the account's history");
    if (uploaded) {
        printf("Unplayed before: %s.\n", uploaded->isUnplayed() ? "yes" : "no");
        uploaded->setUnplayed(false);
        printf("Unplayed after: %s. (velvox history shows it in the next run.)\n", uploaded->isUnplayed() ? "yes" : "no");
    }

    step("The dashboard as a self-contained HTML page");
    auto variables = Dictionary::create({ { "activities", VXDashboardFeed::cards(feed->items()).ptr() }, { "me", me.get() } });
    RefPtr<Error> error;
    if (auto page = VXViewRenderer::renderPage("dashboard", variables.ptr(), &error)) {
        // Into the current folder only when asked; else beside the demo's archives.
        std::string file = output.empty() ? stringByAppendingPathComponent(store.applicationSupportDirectory(), "velvox-dashboard.html") : output;
        std::string problem;
        if (writeUserFile(file, page->view(), problem))
            printf("Wrote %s (%zu bytes, images inlined).\n", file.c_str(), page->view().size());
        else
            printf("Could not write %s: %s\n", file.c_str(), problem.c_str());
    } else {
        printf("The view could not be rendered: %s\n", error ? error->localizedDescription()->utf8() : "");
    }

    step("What the store keeps for the next run");
    auto statistics = store.resourceCacheStatistics();
    for (auto& perClass : statistics.classes)
        printf("  %-10s %5zu objects, about %zu KB\n", perClass.className.c_str(), perClass.objectCount, perClass.estimatedBytes / 1024);
    printf("Saved in %s at exit.\n", store.applicationSupportDirectory().c_str());
    return session.finish(ExitSuccess);
}

} // namespace velvox::app
