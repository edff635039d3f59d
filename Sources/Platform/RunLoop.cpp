#include "RunLoop.h"

#include "Values.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <map>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace velvox {

VX_DEFINE_CLASS(Timer, Object)

SystemClock& SystemClock::shared()
{
    static SystemClock clock;
    return clock;
}

double SystemClock::now() const
{
    using namespace std::chrono;
    return duration_cast<duration<double>>(steady_clock::now().time_since_epoch()).count();
}

struct RunLoop::Impl {
    std::thread::id thread;
    int wakeFd { -1 };

    std::mutex taskMutex;
    std::vector<std::function<void()>> tasks;

    // Ordered by fire time, then by the order of scheduling.
    std::multimap<std::pair<double, uint64_t>, Ref<Timer>> timers;
    uint64_t timerSequence { 0 };

    struct Watch {
        int fd;
        SocketEvent events;
        SocketCallback callback;
    };
    std::map<uint64_t, Watch> watches;
    uint64_t watchSequence { 0 };

    std::atomic<int> stopRequests { 0 };
};

// The main thread is the one that runs static initialisation.
static const std::thread::id s_mainThread = std::this_thread::get_id();

RunLoop::RunLoop()
    : m_impl(std::make_unique<Impl>())
    , m_clock(&SystemClock::shared())
{
    m_impl->thread = std::this_thread::get_id();
    m_impl->wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

RunLoop::~RunLoop()
{
    if (m_impl->wakeFd >= 0)
        close(m_impl->wakeFd);
}

RunLoop& RunLoop::main()
{
    // Never destroyed: other threads may post to it until the process ends.
    static RunLoop* loop = [] {
        auto* loop = new RunLoop;
        loop->m_impl->thread = s_mainThread;
        return loop;
    }();
    return *loop;
}

RunLoop& RunLoop::current()
{
    if (std::this_thread::get_id() == s_mainThread)
        return main();
    thread_local std::unique_ptr<RunLoop> loop(new RunLoop);
    return *loop;
}

bool RunLoop::isCurrent() const
{
    return m_impl->thread == std::this_thread::get_id();
}

void RunLoop::setClock(Clock* clock)
{
    m_clock = clock ? clock : &SystemClock::shared();
}

void RunLoop::post(std::function<void()> task)
{
    {
        std::lock_guard lock(m_impl->taskMutex);
        m_impl->tasks.push_back(std::move(task));
    }
    wake();
}

void RunLoop::wake()
{
    uint64_t one = 1;
    [[maybe_unused]] ssize_t ignored = write(m_impl->wakeFd, &one, sizeof(one));
}

Ref<Timer> RunLoop::performAfterDelay(double seconds, std::function<void()> action)
{
    auto timer = adoptRef(*new Timer(now() + std::max(0.0, seconds), 0, std::move(action)));
    m_impl->timers.emplace(std::make_pair(timer->m_fireTime, m_impl->timerSequence++), timer);
    return timer;
}

Ref<Timer> RunLoop::scheduleRepeatingTimer(double interval, std::function<void()> action)
{
    interval = std::max(interval, 1e-6);
    auto timer = adoptRef(*new Timer(now() + interval, interval, std::move(action)));
    m_impl->timers.emplace(std::make_pair(timer->m_fireTime, m_impl->timerSequence++), timer);
    return timer;
}

size_t RunLoop::pendingTimerCount() const
{
    return std::count_if(m_impl->timers.begin(), m_impl->timers.end(), [](auto& entry) { return entry.second->isValid(); });
}

uint64_t RunLoop::watchSocket(int fd, SocketEvent events, SocketCallback callback)
{
    uint64_t id = ++m_impl->watchSequence;
    m_impl->watches.emplace(id, Impl::Watch { fd, events, std::move(callback) });
    return id;
}

void RunLoop::updateSocket(uint64_t watch, SocketEvent events)
{
    if (auto it = m_impl->watches.find(watch); it != m_impl->watches.end())
        it->second.events = events;
}

void RunLoop::unwatchSocket(uint64_t watch)
{
    m_impl->watches.erase(watch);
}

bool RunLoop::hasPendingTasks()
{
    std::lock_guard lock(m_impl->taskMutex);
    return !m_impl->tasks.empty();
}

bool RunLoop::runTasks()
{
    std::vector<std::function<void()>> tasks;
    {
        std::lock_guard lock(m_impl->taskMutex);
        tasks.swap(m_impl->tasks);
    }
    for (auto& task : tasks)
        task();
    return !tasks.empty();
}

bool RunLoop::fireDueTimers()
{
    // Timers that a firing timer schedules wait for the next pass, even when due.
    double time = now();
    std::vector<Ref<Timer>> due;
    for (auto it = m_impl->timers.begin(); it != m_impl->timers.end() && it->first.first <= time;) {
        due.push_back(it->second);
        it = m_impl->timers.erase(it);
    }
    bool fired = false;
    for (auto& timer : due) {
        // An earlier action in this pass may have cancelled it.
        if (!timer->isValid())
            continue;
        if (timer->m_interval > 0) {
            timer->m_fireTime = std::max(timer->m_fireTime + timer->m_interval, time);
            m_impl->timers.emplace(std::make_pair(timer->m_fireTime, m_impl->timerSequence++), timer);
        } else
            timer->m_valid = false;
        fired = true;
        timer->m_action();
    }
    return fired;
}

double RunLoop::nextTimerDelay() const
{
    for (auto& [key, timer] : m_impl->timers) {
        if (timer->isValid())
            return std::max(0.0, key.first - now());
    }
    return std::numeric_limits<double>::infinity();
}

bool RunLoop::pollSockets(double maxWait)
{
    std::vector<pollfd> fds;
    std::vector<uint64_t> ids;
    fds.push_back({ m_impl->wakeFd, POLLIN, 0 });
    ids.push_back(0);
    for (auto& [id, watch] : m_impl->watches) {
        short events = 0;
        if (any(watch.events & SocketEvent::Readable))
            events |= POLLIN;
        if (any(watch.events & SocketEvent::Writable))
            events |= POLLOUT;
        fds.push_back({ watch.fd, events, 0 });
        ids.push_back(id);
    }
    int timeout = -1;
    if (std::isfinite(maxWait))
        timeout = static_cast<int>(std::ceil(std::max(0.0, maxWait) * 1000));
    int ready = poll(fds.data(), fds.size(), timeout);
    if (ready <= 0)
        return false;
    bool handled = false;
    if (fds[0].revents) {
        uint64_t value;
        [[maybe_unused]] ssize_t ignored = read(m_impl->wakeFd, &value, sizeof(value));
        handled = true;
    }
    for (size_t i = 1; i < fds.size(); ++i) {
        if (!fds[i].revents)
            continue;
        // A callback may have removed this watch, or others.
        auto it = m_impl->watches.find(ids[i]);
        if (it == m_impl->watches.end())
            continue;
        SocketEvent events = SocketEvent::None;
        if (fds[i].revents & (POLLIN | POLLHUP))
            events = events | SocketEvent::Readable;
        if (fds[i].revents & POLLOUT)
            events = events | SocketEvent::Writable;
        if (fds[i].revents & (POLLERR | POLLNVAL))
            events = events | SocketEvent::Error;
        SocketCallback callback = it->second.callback;
        callback(fds[i].fd, events);
        handled = true;
    }
    return handled;
}

bool RunLoop::runOnce(double maxWait)
{
    bool didWork = runTasks();
    didWork |= fireDueTimers();
    if (didWork || hasPendingTasks())
        return pollSockets(0) | true;
    double delay = nextTimerDelay();
    if (!m_clock->isManual())
        return pollSockets(std::min(maxWait, delay));

    // Manual time moves only when nothing else can happen.
    auto& clock = static_cast<ManualClock&>(*m_clock);
    if (m_impl->watches.empty()) {
        double step = std::min(delay, maxWait);
        if (std::isfinite(step)) {
            clock.advance(step);
            fireDueTimers();
            return true;
        }
        // Nothing scheduled and no deadline: only another thread can bring work.
        return pollSockets(0.05);
    }
    // Sockets are waited on in real time, and manual time follows along, so
    // that deadlines are still reached.
    double wait = std::min({ maxWait, delay, 0.01 });
    if (pollSockets(wait))
        return true;
    clock.advance(wait);
    return false;
}

void RunLoop::run()
{
    runUntil([] { return false; });
}

bool RunLoop::runUntil(const std::function<bool()>& condition, double timeout)
{
    int stopsAtEntry = m_impl->stopRequests.load();
    double deadline = now() + timeout;
    while (true) {
        if (condition())
            return true;
        if (m_impl->stopRequests.load() != stopsAtEntry) {
            m_impl->stopRequests.fetch_sub(1);
            return condition();
        }
        double left = deadline - now();
        if (left <= 0)
            return condition();
        bool didWork = runOnce(left);
        // With a manual clock, no timer, no socket and no deadline, waiting could never end.
        if (!didWork && m_clock->isManual() && m_impl->watches.empty() && !std::isfinite(nextTimerDelay()) && !std::isfinite(left))
            return condition();
    }
}

void RunLoop::runUntil(const Date& date)
{
    runFor(date.timeIntervalSinceNow());
}

void RunLoop::runFor(double seconds)
{
    runUntil([] { return false; }, std::max(0.0, seconds));
}

void RunLoop::runUntilIdle()
{
    while (true) {
        bool didWork = runTasks();
        didWork |= fireDueTimers();
        didWork |= pollSockets(0);
        if (!didWork && !hasPendingTasks())
            return;
    }
}

void RunLoop::stop()
{
    m_impl->stopRequests.fetch_add(1);
    wake();
}

} // namespace velvox
