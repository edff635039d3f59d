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
    center.removeObserver(byName);
    center.removeObserver(bySender);
    center.removeObserver(both);
    EXPECT_EQ(center.observerCount(), 0u);
}

TEST(NotificationCenter, ObserverRemovedDuringPostIsNotCalled)
{
    NotificationCenter center;
    std::vector<int> calls;
    RefPtr<NotificationObserver> second;
    RefPtr<NotificationObserver> first = center.addObserver("N", nullptr, [&](Notification&) {
        calls.push_back(1);
        center.removeObserver(*second);
        center.removeObserver(*first); // removing itself is safe too
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
    std::vector<Ref<NotificationObserver>> tokens;
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
