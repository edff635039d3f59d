#include <Platform/Platform.h>

#include <TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace velvox;

using velvox::test::ManualTime;

TEST(RunLoop, TimersFireInOrderOfTimeThenScheduling)
{
    ManualTime time;
    auto& loop = RunLoop::current();
    std::vector<std::string> fired;
    loop.performAfterDelay(2.0, [&] { fired.push_back("b@2"); }).release();
    auto a = loop.performAfterDelay(0.5, [&] { fired.push_back("a@0.5"); });
    auto c = loop.performAfterDelay(2.0, [&] { fired.push_back("c@2"); });
    // The closure goes with the cancellation, not when the timer would have fired.
    auto captured = std::make_shared<int>(0);
    auto cancelled = loop.performAfterDelay(1.0, [&, captured] { fired.push_back("cancelled"); });
    EXPECT_EQ(captured.use_count(), 2);
    cancelled.cancel();
    EXPECT_EQ(captured.use_count(), 1);
    {
        auto dropped = loop.performAfterDelay(1.5, [&] { fired.push_back("dropped"); });
    }

    time.clock.advance(0.4);
    loop.runUntilIdle();
    EXPECT_TRUE(fired.empty());
    time.clock.advance(0.1);
    loop.runUntilIdle();
    EXPECT_EQ(fired, (std::vector<std::string> { "a@0.5" }));
    time.clock.advance(5);
    loop.runUntilIdle();
    EXPECT_EQ(fired, (std::vector<std::string> { "a@0.5", "b@2", "c@2" }));
    EXPECT_EQ(loop.pendingTimerCount(), 0u);
}

// Every finished request cancels a timeout far in the future: the loop must
// not keep them all, and the timers that stay must still fire in order.
TEST(RunLoop, CancelledTimersDoNotPileUp)
{
    ManualTime time;
    auto& loop = RunLoop::current();
    std::vector<int> fired;
    std::vector<Subscription> live;
    for (int i = 0; i < 100000; ++i) {
        loop.performAfterDelay(60, [] { ADD_FAILURE() << "a cancelled timer fired"; }).cancel();
        if (i % 10000 == 0)
            live.push_back(loop.performAfterDelay(1 + i / 10000, [&fired, i] { fired.push_back(i / 10000); }));
        if (i % 1000 == 0)
            loop.runUntilIdle();
    }
    EXPECT_EQ(loop.pendingTimerCount(), 10u);
    EXPECT_LT(loop.heldTimerCount(), 200u);
    time.clock.advance(100);
    loop.runUntilIdle();
    EXPECT_EQ(fired, (std::vector<int> { 0, 1, 2, 3, 4, 5, 6, 7, 8, 9 }));
    EXPECT_EQ(loop.heldTimerCount(), 0u);
}

TEST(RunLoop, IdleLoopJumpsManualTimeToTheNextTimer)
{
    ManualTime time;
    auto& loop = RunLoop::current();
    bool fired = false;
    double firedAt = 0;
    auto timer = loop.performAfterDelay(180, [&] {
        fired = true;
        firedAt = loop.now();
    });
    EXPECT_TRUE(loop.runUntil([&] { return fired; }, 600));
    EXPECT_DOUBLE_EQ(firedAt, 1180);
}

TEST(RunLoop, RunForStopsAtItsDeadlineAndLeavesLaterTimers)
{
    ManualTime time;
    auto& loop = RunLoop::current();
    int count = 0;
    auto first = loop.performAfterDelay(1, [&] { ++count; });
    auto second = loop.performAfterDelay(10, [&] { ++count; });
    loop.runFor(5);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(loop.pendingTimerCount(), 1u);
    loop.runFor(10);
    EXPECT_EQ(count, 2);
}

TEST(RunLoop, RepeatingTimerAndTimerScheduledFromTimer)
{
    ManualTime time;
    auto& loop = RunLoop::current();
    int ticks = 0;
    Subscription repeating;
    repeating = loop.scheduleRepeatingTimer(1, [&] {
        if (++ticks == 3)
            repeating.cancel(); // from inside its own action
    });
    std::vector<int> order;
    loop.performAfterDelay(0, [&] {
            order.push_back(1);
            loop.performAfterDelay(0, [&] { order.push_back(3); }).release();
        })
        .release();
    loop.performAfterDelay(0, [&] { order.push_back(2); }).release();
    loop.runFor(10);
    EXPECT_EQ(ticks, 3);
    EXPECT_EQ(order, (std::vector<int> { 1, 2, 3 }));
}

TEST(RunLoop, TasksPostedFromOtherThreadsRunOnTheLoopThread)
{
    auto& loop = RunLoop::current();
    auto loopThread = std::this_thread::get_id();
    std::atomic<int> done { 0 };
    std::vector<std::thread> threads;
    std::vector<std::thread::id> ranOn;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            loop.post([&] {
                ranOn.push_back(std::this_thread::get_id());
                ++done;
            });
        });
    }
    EXPECT_TRUE(loop.runUntil([&] { return done == 3; }, 10));
    for (auto& thread : threads)
        thread.join();
    for (auto id : ranOn)
        EXPECT_EQ(id, loopThread);
}

TEST(RunLoop, StopEndsRun)
{
    auto& loop = RunLoop::current();
    loop.post([&] { loop.stop(); });
    loop.run(); // returns only because of stop()
    SUCCEED();
}

TEST(RunLoop, WatchesSocketsForReadiness)
{
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    auto& loop = RunLoop::current();
    std::string received;
    auto watch = loop.watchSocket(fds[0], SocketEvent::Readable, [&](int fd, SocketEvent events) {
        EXPECT_TRUE(any(events & SocketEvent::Readable));
        char buffer[16];
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0)
            received.append(buffer, n);
    });
    std::thread writer([&] { ASSERT_EQ(write(fds[1], "ping", 4), 4); });
    EXPECT_TRUE(loop.runUntil([&] { return received == "ping"; }, 10));
    writer.join();
    watch.cancel();
    close(fds[0]);
    close(fds[1]);
}

TEST(RunLoop, MainLoopIsTheMainThreadsCurrentLoop)
{
    EXPECT_EQ(&RunLoop::current(), &RunLoop::main());
    RunLoop* other = nullptr;
    std::thread([&] { other = &RunLoop::current(); }).join();
    EXPECT_NE(other, &RunLoop::main());
}

TEST(RunLoop, AnExceptionLeavesTheRunAndTheRestRunsAtTheNextTurn)
{
    ManualTime time;
    auto& loop = RunLoop::current();
    std::vector<std::string> ran;
    loop.post([&] { ran.push_back("task 1"); });
    loop.post([&] { throw std::runtime_error("task 2"); });
    loop.post([&] { ran.push_back("task 3"); });
    auto t1 = loop.performAfterDelay(1, [&] { throw std::runtime_error("timer 1"); });
    auto t2 = loop.performAfterDelay(1, [&] { ran.push_back("timer 2"); });

    EXPECT_THROW(loop.runUntilIdle(), std::runtime_error);
    EXPECT_EQ(ran, (std::vector<std::string> { "task 1" }));
    loop.runUntilIdle();
    EXPECT_EQ(ran, (std::vector<std::string> { "task 1", "task 3" }));

    try {
        loop.runFor(2);
        FAIL() << "the timer's exception should leave runFor";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "timer 1");
    }
    EXPECT_EQ(loop.pendingTimerCount(), 1u); // the second due timer waits for the next turn
    loop.runUntilIdle();
    EXPECT_EQ(ran, (std::vector<std::string> { "task 1", "task 3", "timer 2" }));
}

TEST(RunLoop, AHostsPollLoopDrivesIt)
{
    // A thread of its own, with the system clock: the host waits for real.
    std::thread host([] {
        auto& loop = RunLoop::current();
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        std::vector<std::string> events;
        auto watch = loop.watchSocket(fds[0], SocketEvent::Readable, [&](int fd, SocketEvent) {
            char buffer[16];
            ssize_t n = read(fd, buffer, sizeof(buffer));
            events.push_back("read " + std::string(buffer, n > 0 ? n : 0));
        });
        auto timer = loop.performAfterDelay(0.05, [&] { events.push_back("timer"); });
        // Before the other thread posts: a posted task makes the wait zero.
        EXPECT_EQ(loop.timeUntilNextTimer() > 0, true);
        std::thread other([&] {
            loop.post([&] { events.push_back("task"); });
            ASSERT_EQ(write(fds[1], "ab", 2), 2);
        });

        // The host's own loop: poll the descriptor, never longer than the next timer.
        for (int turn = 0; turn < 200 && events.size() < 3; ++turn) {
            pollfd fd { loop.eventDescriptor(), POLLIN, 0 };
            double wait = loop.timeUntilNextTimer();
            int timeout = std::isfinite(wait) ? static_cast<int>(std::ceil(wait * 1000)) : 1000;
            poll(&fd, 1, timeout);
            loop.runUntilIdle();
        }
        other.join();
        std::sort(events.begin(), events.end());
        EXPECT_EQ(events, (std::vector<std::string> { "read ab", "task", "timer" }));
        // With everything handled, the descriptor is quiet and no timer is left.
        pollfd fd { loop.eventDescriptor(), POLLIN, 0 };
        EXPECT_EQ(poll(&fd, 1, 0), 0);
        EXPECT_TRUE(std::isinf(loop.timeUntilNextTimer()));
        watch.cancel();
        close(fds[0]);
        close(fds[1]);
    });
    host.join();
}

TEST(RunLoop, DateNowFollowsTheLoopsClock)
{
    ManualTime time;
    time.clock.setWallTime(1700000000);
    EXPECT_EQ(Date::now()->timeIntervalSince1970(), 1700000000);
    time.clock.advance(90);
    EXPECT_EQ(Date::now()->timeIntervalSince1970(), 1700000090);
    EXPECT_DOUBLE_EQ(Date::create(1700000000)->timeIntervalSinceNow(), -90);
}

TEST(RunLoop, SocketTokenMayOutliveItsLoop)
{
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    Subscription watch;
    std::thread([&] { watch = RunLoop::current().watchSocket(fds[0], SocketEvent::Readable, [](int, SocketEvent) {}); }).join();
    watch.cancel(); // that thread's loop is gone
    close(fds[0]);
    close(fds[1]);
}
