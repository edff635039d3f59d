// A host as a GUI toolkit drives it: the run loop is served from a plain
// poll() loop (its descriptor, its next timer, runUntilIdle), and "windows"
// start fetches, page loads, follow changes, comments and an upload on a slow
// service, then close while all of it is under way. A window's blocks use the
// window itself, so a block of a closed window that ran would be a
// use-after-free: the sanitizer build turns any such run into a failure, and
// the counters below do so in every build.

#include <Platform/Platform.h>
#include <Sandbox/SandboxService.h>
#include <VelvoxKit/VXResourceController.h>

#include <StoreFixture.h>

#include <poll.h>

#include <chrono>
#include <cmath>
#include <memory>

using namespace velvox;

namespace {

// One turn of a toolkit's loop: wait on the run loop's descriptor for no
// longer than its next timer, then let it handle what is ready.
void serveFor(double seconds)
{
    auto& loop = RunLoop::current();
    auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        double left = std::chrono::duration<double>(end - std::chrono::steady_clock::now()).count();
        double wait = std::min(loop.timeUntilNextTimer(), left);
        pollfd descriptor { loop.eventDescriptor(), POLLIN, 0 };
        poll(&descriptor, 1, static_cast<int>(std::ceil(std::max(wait, 0.0) * 1000)));
        loop.runUntilIdle();
    }
}

struct Heard {
    int calls { 0 };
    int ofClosedWindows { 0 };
};

// What every window has: the calls it started, which end with it.
class Window {
public:
    explicit Window(Heard& heard)
        : m_heard(heard)
    {
    }
    virtual ~Window()
    {
        m_calls.cancel();
        m_closed = true;
    }
    bool hasHeard() const { return m_heardCount > 0; }

protected:
    // Every block of a window goes through here, on the window itself.
    void hear()
    {
        ++m_heard.calls;
        ++m_heardCount;
        if (m_closed)
            ++m_heard.ofClosedWindows;
    }
    VXResourceController& store() { return VXResourceController::sharedResourceController(); }
    SubscriptionSet m_calls;
    Heard& m_heard;
    int m_heardCount { 0 };
    bool m_closed { false };
};

class TrackWindow final : public Window {
public:
    TrackWindow(Heard& heard, std::string_view trackIdentifier)
        : Window(heard)
        , m_comments(store().commentsForTrackIdentifier(trackIdentifier))
    {
        store().trackForIdentifier(trackIdentifier, true, [this](VXTrack* track, Error*) { m_track = track; hear(); }, m_calls.add());
        m_comments->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false, [this](Error*) { hear(); }, m_calls.add());
        store().postCommentWithTrackIdentifier(trackIdentifier, "closing", 12.5, [this](VXComment*, Error*) { hear(); }, m_calls.add());
    }

private:
    Ref<VXCommentCollectionController> m_comments;
    RefPtr<VXTrack> m_track;
};

class UserWindow final : public Window {
public:
    UserWindow(Heard& heard, std::string_view userIdentifier)
        : Window(heard)
        , m_tracks(store().tracksForUserIdentifier(userIdentifier))
    {
        store().userForIdentifier(userIdentifier, true, [this](VXUser*, Error*) { hear(); }, m_calls.add());
        store().meIsFollowingUserForIdentifier(userIdentifier, [this](Number*, Error*) { hear(); }, m_calls.add());
        store().startFollowingUserForIdentifier(userIdentifier, [this](Object*, Error*) { hear(); }, m_calls.add());
        m_tracks->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false, [this](Error*) { hear(); }, m_calls.add());
    }

private:
    Ref<VXTrackCollectionController> m_tracks;
};

class UploadWindow final : public Window {
public:
    explicit UploadWindow(Heard& heard)
        : Window(heard)
    {
        auto upload = Dictionary::create({
            { "track[title]", String::create("From a window").ptr() },
            { "track[asset_data]", Data::create(std::string(64 * 1024, 'a')).ptr() },
        });
        store().postTrackWithTrackDictionary(
            upload.ptr(), [this](VXTrack*, float) { hear(); }, [this](Object*, Error*) { hear(); }, m_calls.add());
    }
};

class DashboardWindow final : public Window {
public:
    explicit DashboardWindow(Heard& heard)
        : Window(heard)
        , m_feed(store().incomingActivities())
    {
        m_feed->loadMoreItemsForReloadOperationType(ZURemoteCollectionReloadOperationType::Reload, false, [this](Error*) { hear(); }, m_calls.add());
        store().meUserForceRefresh(true, [this](VXUser*, Error*) { hear(); }, m_calls.add());
    }

private:
    Ref<VXActivityCollectionController> m_feed;
};

class PollHost : public test::SandboxStoreFixture { };

} // namespace

TEST_F(PollHost, WindowsClosedMidFlightNeverHearOfTheirCallsAndSendNothingMore)
{
    sandbox::Fault slow;
    slow.seconds = 0.6;
    service->addFault(slow);
    Heard heard;
    std::vector<std::unique_ptr<Window>> windows;
    for (int round = 0; round < 3; ++round) {
        windows.push_back(std::make_unique<TrackWindow>(heard, "20005"));
        windows.push_back(std::make_unique<UserWindow>(heard, "1003"));
        windows.push_back(std::make_unique<UploadWindow>(heard));
        windows.push_back(std::make_unique<DashboardWindow>(heard));
    }
    // One window stays open: its calls are the control case.
    auto stays = std::make_unique<TrackWindow>(heard, "20006");

    serveFor(0.2); // the first requests are out; the rest wait their turn
    int sentBeforeClosing = service->totalRequestCount();
    int heardBeforeClosing = heard.calls; // upload progress, say
    EXPECT_GT(sentBeforeClosing, 0);
    windows.clear();
    EXPECT_EQ(store->apiController()->api()->queuedRequestCount(), 0u);

    serveFor(1.5);
    ASSERT_TRUE(RunLoop::current().runUntil([&] { return stays->hasHeard(); }, 5));
    serveFor(0.7);
    EXPECT_EQ(heard.ofClosedWindows, 0);
    EXPECT_EQ(heard.calls - heardBeforeClosing, 3) << "the open window hears of its fetch, its comments and its comment";
    // The open window's three requests went out after the closing (the others
    // had the connections until then); nothing of the closed windows did.
    EXPECT_LE(service->totalRequestCount(), sentBeforeClosing + 3);
    EXPECT_EQ(store->apiController()->runningConnections().count(), 0u);
}
