#include <Platform/Platform.h>
#include <ZUKit/ZUCoalescedNotification.h>

#include <TestSupport.h>

#include <gtest/gtest.h>

using namespace velvox;
using velvox::test::ManualTime;

TEST(CoalescedNotification, RepeatedPostsOfOneNameAndObjectGoOutOnceOnTheNextTurn)
{
    ManualTime time;
    auto first = String::create("first"), second = String::create("second");
    std::vector<std::string> delivered;
    auto observer = NotificationCenter::defaultCenter().addObserver({}, nullptr, [&](Notification& notification) {
        if (notification.name()->hasPrefix("Test"))
            delivered.push_back(notification.name()->str() + ":" + (notification.object() ? notification.object()->description()->str() : "nil"));
    });
    for (int i = 0; i < 3; ++i) {
        zu_postCoalenscedNotificationName("TestChanged", first.ptr());
        zu_postCoalenscedNotificationName("TestImage", first.ptr());
    }
    zu_postCoalenscedNotificationName("TestChanged", second.ptr());
    zu_postCoalenscedNotificationName("TestChanged", nullptr);
    zu_postCoalenscedNotificationName("TestChanged", nullptr);
    EXPECT_TRUE(delivered.empty()); // nothing before the next turn
    EXPECT_EQ(zu_pendingCoalescedNotificationCount(), 4u);
    RunLoop::current().runUntilIdle();
    EXPECT_EQ(delivered, (std::vector<std::string> { "TestChanged:first", "TestImage:first", "TestChanged:second", "TestChanged:nil" }));
    EXPECT_EQ(time.clock.now(), 1000); // no time had to pass

    // A post from an observer waits for the turn after.
    delivered.clear();
    auto reposter = NotificationCenter::defaultCenter().addObserver("TestChanged", first.ptr(), [&](Notification&) {
        zu_postCoalenscedNotificationName("TestAgain", first.ptr());
    });
    zu_postCoalenscedNotificationName("TestChanged", first.ptr());
    RunLoop::current().runUntilIdle();
    EXPECT_EQ(delivered, (std::vector<std::string> { "TestChanged:first", "TestAgain:first" }));
}

TEST(CoalescedNotification, KeepsItsObjectAliveUntilDelivered)
{
    RefPtr<Object> seen;
    auto observer = NotificationCenter::defaultCenter().addObserver("TestGone", nullptr, [&](Notification& notification) {
        seen = notification.object();
    });
    {
        auto object = String::create("temporary");
        zu_postCoalenscedNotificationName("TestGone", object.ptr());
    }
    RunLoop::current().runUntilIdle();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->description()->str(), "temporary");
}
