// The poller of unfinished tracks on its own: when refreshes go out, how
// merged ones pick their time, how a bound queues them, and that nothing
// fires or is given back into a poller that has stopped or gone.

#include <VelvoxKit/VXTrackPoller.h>

#include <Platform/Platform.h>
#include <TestSupport.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace velvox;
using velvox::test::ManualTime;

namespace {

struct Refreshes {
    std::vector<std::string> sent;
    // The slots of refreshes that have not answered yet, in order.
    std::vector<std::shared_ptr<void>> unanswered;
    VXTrackPoller::Refresh refresh()
    {
        return [this](String* identifier, std::shared_ptr<void> slot) {
            sent.push_back(identifier->str());
            if (slot)
                unanswered.push_back(std::move(slot));
        };
    }
    void answer(size_t index) { unanswered.at(index).reset(); }
};

Ref<String> text(std::string_view value) { return String::create(value); }

} // namespace

TEST(TrackPoller, EverySightingOrTheSoonestWhenMerged)
{
    ManualTime time;
    Refreshes refreshes;
    VXTrackPoller poller(refreshes.refresh());
    poller.schedule(text("1").ptr(), 5);
    poller.schedule(text("1").ptr(), 2);
    poller.schedule(nullptr, 1);
    EXPECT_EQ(poller.pendingCount(), 2u);
    RunLoop::current().runFor(5.01);
    EXPECT_EQ(refreshes.sent, (std::vector<std::string> { "1", "1" }));

    refreshes.sent.clear();
    poller.setLimits({ .mergesRefreshes = true });
    poller.schedule(text("1").ptr(), 5);
    poller.schedule(text("1").ptr(), 9); // later: the pending one stays
    poller.schedule(text("1").ptr(), 2); // sooner: replaces it
    poller.schedule(text("2").ptr(), 3);
    EXPECT_EQ(poller.pendingCount(), 2u);
    RunLoop::current().runFor(2.01);
    EXPECT_EQ(refreshes.sent, (std::vector<std::string> { "1" }));
    RunLoop::current().runFor(10);
    EXPECT_EQ(refreshes.sent, (std::vector<std::string> { "1", "2" }));
    EXPECT_EQ(poller.pendingCount(), 0u);
}

TEST(TrackPoller, ABoundQueuesDueRefreshesUntilPlacesAreGivenBack)
{
    ManualTime time;
    Refreshes refreshes;
    VXTrackPoller poller(refreshes.refresh());
    poller.setLimits({ .mergesRefreshes = true, .maximumInFlight = 2 });
    for (auto id : { "a", "b", "c", "d" })
        poller.schedule(text(id).ptr(), 2);
    RunLoop::current().runFor(2.01);
    EXPECT_EQ(refreshes.sent, (std::vector<std::string> { "a", "b" }));
    EXPECT_EQ(poller.pendingCount(), 4u);
    // A waiting track seen again is not queued twice.
    poller.schedule(text("c").ptr(), 0);
    RunLoop::current().runFor(0.01);
    EXPECT_EQ(refreshes.sent.size(), 2u);

    refreshes.answer(1);
    EXPECT_EQ(refreshes.sent.size(), 2u) << "the place comes back from the loop, not from inside the block's end";
    RunLoop::current().runFor(0.01);
    EXPECT_EQ(refreshes.sent, (std::vector<std::string> { "a", "b", "c" }));
    refreshes.answer(0);
    refreshes.answer(2);
    RunLoop::current().runFor(0.01);
    EXPECT_EQ(refreshes.sent, (std::vector<std::string> { "a", "b", "c", "d" }));
    refreshes.answer(3);
    RunLoop::current().runFor(0.01);
    EXPECT_EQ(poller.pendingCount(), 0u);
}

TEST(TrackPoller, NothingFiresAfterStopAndLateAnswersFindNoPoller)
{
    ManualTime time;
    Refreshes refreshes;
    {
        VXTrackPoller poller(refreshes.refresh());
        poller.setLimits({ .maximumInFlight = 1 });
        poller.schedule(text("1").ptr(), 1);
        poller.schedule(text("2").ptr(), 1);
        poller.schedule(text("3").ptr(), 50);
        RunLoop::current().runFor(1.01);
        ASSERT_EQ(refreshes.sent.size(), 1u);
        poller.stop();
        RunLoop::current().runFor(100);
        EXPECT_EQ(refreshes.sent.size(), 1u);
    }
    // The answer of a refresh outlives its poller: giving its place back is a no-op.
    refreshes.answer(0);
    RunLoop::current().runFor(0.01);
    EXPECT_EQ(refreshes.sent.size(), 1u);
}
