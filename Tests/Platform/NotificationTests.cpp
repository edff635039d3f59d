#include <Platform/Platform.h>

#include <gtest/gtest.h>

using namespace velvox;

TEST(NotificationCenter, MatchesByNameAndSender)
{
    NotificationCenter center;
    auto sender = String::create("sender");
    auto other = String::create("other");
    std::vector<std::string> calls;
    auto byName = center.addObserver("Changed", nullptr, [&](Notification& n) { calls.push_back("name:" + n.object()->description()->str()); });
    auto bySender = center.addObserver("", sender.ptr(), [&](Notification& n) { calls.push_back("sender:" + n.name()->str()); });
    auto both = center.addObserver("Changed", other.ptr(), [&](Notification&) { calls.push_back("both"); });

    center.postNotification("Changed", sender.ptr());
    center.postNotification("Other", sender.ptr());
    center.postNotification("Changed", other.ptr(), Dictionary::create({ { "k", sender.ptr() } }).ptr());
    EXPECT_EQ(calls, (std::vector<std::string> { "name:sender", "sender:Changed", "sender:Other", "name:other", "both" }));
    byName.cancel();
    bySender = Subscription(); // assigning over a token stops it too
    EXPECT_EQ(center.observerCount(), 1u);
    {
        auto moved = std::move(both);
        EXPECT_FALSE(both.isActive());
    }
    EXPECT_EQ(center.observerCount(), 0u);
}

TEST(NotificationCenter, ObserverRemovedDuringPostIsNotCalled)
{
    NotificationCenter center;
    std::vector<int> calls;
    Subscription second;
    Subscription first = center.addObserver("N", nullptr, [&](Notification&) {
        calls.push_back(1);
        second.cancel();
        first.cancel(); // removing itself is safe too
    });
    second = center.addObserver("N", nullptr, [&](Notification&) { calls.push_back(2); });
    auto third = center.addObserver("N", nullptr, [&](Notification&) { calls.push_back(3); });
    center.postNotification("N");
    center.postNotification("N");
    EXPECT_EQ(calls, (std::vector<int> { 1, 3, 3 }));
}

TEST(NotificationCenter, ObserverAddedDuringPostWaitsForTheNextPost)
{
    NotificationCenter center;
    int late = 0;
    std::vector<Subscription> tokens;
    tokens.reserve(4);
    tokens.push_back(center.addObserver("N", nullptr, [&](Notification&) {
        if (tokens.size() == 1)
            tokens.push_back(center.addObserver("N", nullptr, [&](Notification&) { ++late; }));
    }));
    center.postNotification("N");
    EXPECT_EQ(late, 0);
    center.postNotification("N");
    EXPECT_EQ(late, 1);
}

TEST(NotificationCenter, DefaultCenterAndTerminationName)
{
    EXPECT_EQ(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter());
    EXPECT_EQ(ApplicationWillTerminateNotification, "NSApplicationWillTerminateNotification");
}

TEST(NotificationCenter, TokensStopObserversAndMayOutliveTheirCentre)
{
    int calls = 0;
    auto counted = std::make_shared<int>(0);
    Subscription outliving;
    {
        NotificationCenter center;
        {
            auto dropped = center.addObserver("N", nullptr, [&](Notification&) { ++calls; });
        }
        center.postNotification("N");
        EXPECT_EQ(calls, 0);
        EXPECT_EQ(center.observerCount(), 0u);

        auto released = center.addObserver("N", nullptr, [&](Notification&) { ++calls; });
        released.release(); // runs for the life of the centre
        center.postNotification("N");
        EXPECT_EQ(calls, 1);

        // Removing an observer releases its handler at once.
        outliving = center.addObserver("M", nullptr, [counted](Notification&) {});
        EXPECT_EQ(counted.use_count(), 2);
        auto another = center.addObserver("M", nullptr, [counted](Notification&) {});
        another.cancel();
        EXPECT_EQ(counted.use_count(), 2);
    }
    outliving.cancel(); // the centre is gone: nothing to do, nothing to crash
    EXPECT_FALSE(outliving.isActive());
}
