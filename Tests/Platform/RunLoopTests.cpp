#include <Platform/Platform.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace velvox;

namespace {

// Gives the current loop a manual clock for one test.
class ManualTime {
public:
    ManualTime() { RunLoop::current().setClock(&clock); }
    ~ManualTime() { RunLoop::current().setClock(nullptr); }
    ManualClock clock { 1000 };
};

} // namespace

TEST(RunLoop, TimersFireInOrderOfTimeThenScheduling)
{
    ManualTime time;
    auto& loop = RunLoop::current();
    std::vector<std::string> fired;
    loop.performAfterDelay(2.0, [&] { fired.push_back("b@2"); });
    loop.performAfterDelay(0.5, [&] { fired.push_back("a@0.5"); });
    loop.performAfterDelay(2.0, [&] { fired.push_back("c@2"); });
    auto cancelled = loop.performAfterDelay(1.0, [&] { fired.push_back("cancelled"); });
    cancelled->cancel();

    time.clock.advance(0.4);
    loop.runUntilIdle();
    EXPECT_TRUE(fired.empty());
    time.clock.advance(0.1);
    loop.runUntilIdle();
    EXPECT_EQ(fired, (std::vector<std::string> { "a@0.5" }));
    time.clock.advance(5);
    loop.runUntilIdle();
    EXPECT_EQ(fired, (std::vector<std::string> { "a@0.5", "b@2", "c@2" }));
    EXPECT_FALSE(cancelled->isValid());
    EXPECT_EQ(loop.pendingTimerCount(), 0u);
}

TEST(RunLoop, IdleLoopJumpsManualTimeToTheNextTimer)
{
    ManualTime time;
    auto& loop = RunLoop::current();
    bool fired = false;
    double firedAt = 0;
    loop.performAfterDelay(180, [&] {
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
    loop.performAfterDelay(1, [&] { ++count; });
    loop.performAfterDelay(10, [&] { ++count; });
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
    RefPtr<Timer> repeating;
    repeating = loop.scheduleRepeatingTimer(1, [&] {
        if (++ticks == 3)
            repeating->cancel();
    });
    std::vector<int> order;
    loop.performAfterDelay(0, [&] {
        order.push_back(1);
        loop.performAfterDelay(0, [&] { order.push_back(3); });
    });
    loop.performAfterDelay(0, [&] { order.push_back(2); });
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
    uint64_t watch = loop.watchSocket(fds[0], SocketEvent::Readable, [&](int fd, SocketEvent events) {
        EXPECT_TRUE(any(events & SocketEvent::Readable));
        char buffer[16];
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n > 0)
            received.append(buffer, n);
    });
    std::thread writer([&] { ASSERT_EQ(write(fds[1], "ping", 4), 4); });
    EXPECT_TRUE(loop.runUntil([&] { return received == "ping"; }, 10));
    writer.join();
    loop.unwatchSocket(watch);
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
