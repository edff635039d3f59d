#include "RunLoop.h"

#include "Values.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <deque>
#include <map>
#include <mutex>
#include <sys/epoll.h>
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

double SystemClock::wallTime() const
{
    using namespace std::chrono;
    return duration_cast<duration<double>>(system_clock::now().time_since_epoch()).count();
}

struct RunLoop::Impl {
    // The descriptors go with the last holder: a poster on another thread may
    // be writing to the wake descriptor while the loop is destroyed.
    ~Impl()
    {
        if (epollFd >= 0)
            close(epollFd);
        if (wakeFd >= 0)
            close(wakeFd);
    }
    std::thread::id thread;
    int wakeFd { -1 };
    // Holds the wake descriptor and every watched socket: one descriptor that
    // tells a host's event loop, or our own wait, that there is work.
    int epollFd { -1 };

    std::mutex taskMutex;
    std::deque<std::function<void()>> tasks;

    // Ordered by fire time, then by the order of scheduling. A cancelled timer
    // stays until it is met at the front or a sweep removes it: a sweep runs
    // when the map has doubled since the last one, so cancelled timers (every
    // finished request cancels its timeout) never outnumber the live ones for
    // long, and finding the next fire time does not walk past them.
    std::multimap<std::pair<double, uint64_t>, Ref<Timer>> timers;
    uint64_t timerSequence { 0 };
    size_t timerSweepSize { 64 };

    void addTimer(std::pair<double, uint64_t> key, Ref<Timer> timer)
    {
        if (timers.size() >= timerSweepSize) {
            std::erase_if(timers, [](auto& entry) { return !entry.second->isValid(); });
            timerSweepSize = std::max<size_t>(64, timers.size() * 2);
        }
        timers.emplace(key, std::move(timer));
    }

    struct Watch {
        SocketEvent events;
        uint64_t generation;
        std::shared_ptr<SocketCallback> callback;
    };
    std::map<int, Watch> watches;
    uint64_t watchSequence { 0 };

    std::atomic<int> stopRequests { 0 };
};

// The main thread is the one that runs static initialisation.
static const std::thread::id s_mainThread = std::this_thread::get_id();

static std::atomic<RunLoop*> s_mainLoop { nullptr };
static thread_local RunLoop* t_threadLoop = nullptr;

namespace {

uint32_t epollEvents(SocketEvent events)
{
    uint32_t result = 0;
    if (any(events & SocketEvent::Readable))
        result |= EPOLLIN;
    if (any(events & SocketEvent::Writable))
        result |= EPOLLOUT;
    return result;
}

} // namespace

RunLoop::RunLoop()
    : m_impl(std::make_shared<Impl>())
    , m_clock(&SystemClock::shared())
{
    m_impl->thread = std::this_thread::get_id();
    m_impl->wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_impl->epollFd = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event {};
    event.events = EPOLLIN;
    event.data.fd = m_impl->wakeFd;
    epoll_ctl(m_impl->epollFd, EPOLL_CTL_ADD, m_impl->wakeFd, &event);
}

RunLoop::~RunLoop()
{
    if (t_threadLoop == this)
        t_threadLoop = nullptr;
}

int RunLoop::eventDescriptor() const
{
    return m_impl->epollFd;
}

double RunLoop::timeUntilNextTimer() const
{
    if (hasPendingTasks())
        return 0;
    return nextTimerDelay();
}

RunLoop& RunLoop::main()
{
    // Never destroyed: other threads may post to it until the process ends.
    static RunLoop* loop = [] {
        auto* loop = new RunLoop;
        loop->m_impl->thread = s_mainThread;
        s_mainLoop.store(loop);
        return loop;
    }();
    return *loop;
}

RunLoop& RunLoop::current()
{
    if (std::this_thread::get_id() == s_mainThread)
        return main();
    thread_local std::unique_ptr<RunLoop> loop = [] {
        std::unique_ptr<RunLoop> made(new RunLoop);
        t_threadLoop = made.get();
        return made;
    }();
    return *loop;
}

RunLoop* RunLoop::currentIfExists()
{
    if (std::this_thread::get_id() == s_mainThread)
        return s_mainLoop.load();
    return t_threadLoop;
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
    // The wake-up is written before the task can be seen: a loop that runs the
    // task then also drains its wake-up in the same pass, instead of leaving
    // the descriptor readable with nothing to do.
    std::lock_guard lock(m_impl->taskMutex);
    m_impl->tasks.push_back(std::move(task));
    wake();
}

RunLoop::Poster RunLoop::poster() const
{
    return [weakImpl = std::weak_ptr<Impl>(m_impl)](std::function<void()> task) {
        auto impl = weakImpl.lock();
        if (!impl)
            return false;
        std::lock_guard lock(impl->taskMutex);
        impl->tasks.push_back(std::move(task));
        uint64_t one = 1;
        [[maybe_unused]] ssize_t ignored = write(impl->wakeFd, &one, sizeof(one));
        return true;
    };
}

void RunLoop::wake()
{
    uint64_t one = 1;
    [[maybe_unused]] ssize_t ignored = write(m_impl->wakeFd, &one, sizeof(one));
}

static Subscription timerSubscription(Ref<Timer>&& timer)
{
    return Subscription([timer = std::move(timer)] { timer->cancel(); });
}

Subscription RunLoop::performAfterDelay(double seconds, std::function<void()> action)
{
    auto timer = adoptRef(*new Timer(now() + std::max(0.0, seconds), 0, std::move(action)));
    m_impl->addTimer(std::make_pair(timer->m_fireTime, m_impl->timerSequence++), timer);
    return timerSubscription(std::move(timer));
}

Subscription RunLoop::scheduleRepeatingTimer(double interval, std::function<void()> action)
{
    interval = std::max(interval, 1e-6);
    auto timer = adoptRef(*new Timer(now() + interval, interval, std::move(action)));
    m_impl->addTimer(std::make_pair(timer->m_fireTime, m_impl->timerSequence++), timer);
    return timerSubscription(std::move(timer));
}

size_t RunLoop::pendingTimerCount() const
{
    return std::count_if(m_impl->timers.begin(), m_impl->timers.end(), [](auto& entry) { return entry.second->isValid(); });
}

size_t RunLoop::heldTimerCount() const
{
    return m_impl->timers.size();
}

Subscription RunLoop::watchSocket(int fd, SocketEvent events, SocketCallback callback)
{
    uint64_t generation = ++m_impl->watchSequence;
    epoll_event event {};
    event.events = epollEvents(events);
    event.data.fd = fd;
    auto [it, inserted] = m_impl->watches.insert_or_assign(fd, Impl::Watch { events, generation, std::make_shared<SocketCallback>(std::move(callback)) });
    if (epoll_ctl(m_impl->epollFd, inserted ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, &event) != 0 && inserted)
        epoll_ctl(m_impl->epollFd, EPOLL_CTL_MOD, fd, &event); // a descriptor number reused after close
    std::weak_ptr<Impl> weakImpl = m_impl;
    return Subscription([this, weakImpl, fd, generation] {
        // The loop may be gone (its thread ended) before the token.
        if (auto impl = weakImpl.lock())
            unwatchSocket(fd, generation);
    });
}

void RunLoop::updateSocket(int fd, SocketEvent events)
{
    auto it = m_impl->watches.find(fd);
    if (it == m_impl->watches.end())
        return;
    it->second.events = events;
    epoll_event event {};
    event.events = epollEvents(events);
    event.data.fd = fd;
    epoll_ctl(m_impl->epollFd, EPOLL_CTL_MOD, fd, &event);
}

void RunLoop::unwatchSocket(int fd, uint64_t generation)
{
    auto it = m_impl->watches.find(fd);
    if (it == m_impl->watches.end() || it->second.generation != generation)
        return;
    m_impl->watches.erase(it);
    // The descriptor may already be closed, which removed it from the set.
    epoll_ctl(m_impl->epollFd, EPOLL_CTL_DEL, fd, nullptr);
}

bool RunLoop::hasPendingTasks() const
{
    std::lock_guard lock(m_impl->taskMutex);
    return !m_impl->tasks.empty();
}

bool RunLoop::runTasks()
{
    // Only the tasks queued now: a task that posts another leaves it for the
    // next pass. One at a time, so that an exception leaves the rest queued.
    size_t count;
    {
        std::lock_guard lock(m_impl->taskMutex);
        count = m_impl->tasks.size();
    }
    for (size_t i = 0; i < count; ++i) {
        std::function<void()> task;
        {
            std::lock_guard lock(m_impl->taskMutex);
            task = std::move(m_impl->tasks.front());
            m_impl->tasks.pop_front();
        }
        task();
    }
    return count > 0;
}

bool RunLoop::fireDueTimers()
{
    // Timers that a firing timer schedules wait for the next pass, even when due.
    double time = now();
    std::vector<std::pair<std::pair<double, uint64_t>, Ref<Timer>>> due;
    for (auto it = m_impl->timers.begin(); it != m_impl->timers.end() && it->first.first <= time;) {
        due.emplace_back(it->first, it->second);
        it = m_impl->timers.erase(it);
    }
    bool fired = false;
    for (size_t i = 0; i < due.size(); ++i) {
        auto& timer = due[i].second;
        // An earlier action in this pass may have cancelled it.
        if (!timer->isValid())
            continue;
        bool repeats = timer->m_interval > 0;
        if (repeats) {
            timer->m_fireTime = std::max(timer->m_fireTime + timer->m_interval, time);
            m_impl->addTimer(std::make_pair(timer->m_fireTime, m_impl->timerSequence++), timer);
        } else
            timer->m_valid = false;
        fired = true;
        // The action may cancel its own timer; the closure must outlive the call.
        auto action = std::move(timer->m_action);
        timer->m_firing = true;
        try {
            action();
        } catch (...) {
            timer->m_firing = false;
            if (repeats && timer->m_valid)
                timer->m_action = std::move(action);
            // The due timers not yet fired go back, in their order, for the next turn.
            for (size_t j = i + 1; j < due.size(); ++j)
                m_impl->timers.emplace(due[j].first, due[j].second);
            throw;
        }
        timer->m_firing = false;
        if (repeats && timer->m_valid)
            timer->m_action = std::move(action);
    }
    return fired;
}

double RunLoop::nextTimerDelay() const
{
    // Cancelled timers met at the front leave here, so the next look starts past them.
    auto& timers = m_impl->timers;
    for (auto it = timers.begin(); it != timers.end(); it = timers.erase(it)) {
        if (it->second->isValid())
            return std::max(0.0, it->first.first - now());
    }
    return std::numeric_limits<double>::infinity();
}

bool RunLoop::pollSockets(double maxWait)
{
    int timeout = -1;
    if (std::isfinite(maxWait))
        timeout = static_cast<int>(std::ceil(std::max(0.0, maxWait) * 1000));
    epoll_event ready[64];
    int count = epoll_wait(m_impl->epollFd, ready, 64, timeout);
    if (count <= 0)
        return false;
    bool handled = false;
    // Level-triggered: an event not handled here (a callback threw) is
    // reported again at the next wait.
    for (int i = 0; i < count; ++i) {
        int fd = ready[i].data.fd;
        if (fd == m_impl->wakeFd) {
            uint64_t value;
            [[maybe_unused]] ssize_t ignored = read(m_impl->wakeFd, &value, sizeof(value));
            handled = true;
            continue;
        }
        // A callback may have removed this watch, or others.
        auto it = m_impl->watches.find(fd);
        if (it == m_impl->watches.end())
            continue;
        uint32_t revents = ready[i].events;
        SocketEvent events = SocketEvent::None;
        if (revents & (EPOLLIN | EPOLLHUP | EPOLLRDHUP))
            events = events | SocketEvent::Readable;
        if (revents & EPOLLOUT)
            events = events | SocketEvent::Writable;
        if (revents & EPOLLERR)
            events = events | SocketEvent::Error;
        if (revents & EPOLLHUP)
            events = events & (it->second.events | SocketEvent::Error | SocketEvent::Readable);
        else
            events = events & (it->second.events | SocketEvent::Error);
        if (!any(events))
            continue;
        auto callback = it->second.callback;
        (*callback)(fd, events);
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
