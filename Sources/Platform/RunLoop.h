#pragma once

// A per-thread event loop: posted tasks, timers and socket readiness.
//
// Every thread has its own loop (RunLoop::current()); the main thread's loop is
// RunLoop::main(). Tasks may be posted from any thread; timers and sockets
// belong to the loop's own thread, and every callback runs there.
//
// A loop reads time from its clock. Tests give it a ManualClock, whose time
// moves only when advanced: by the test, or by the loop itself when it has
// nothing to wait for but a timer (no task, no socket), so that a test never
// sleeps to wait for a timer.

#include "Object.h"
#include "Subscription.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>

namespace velvox {

class Date;

class Clock {
public:
    virtual ~Clock() = default;
    // Seconds on a monotonic scale.
    virtual double now() const = 0;
    // Seconds since 1970-01-01 00:00:00 UTC: what Date::now() answers.
    virtual double wallTime() const = 0;
    virtual bool isManual() const { return false; }
};

class SystemClock final : public Clock {
public:
    static SystemClock& shared();
    double now() const override;
    double wallTime() const override;
};

// Time that moves only when told to. Its wall time moves with it, from a
// starting instant (by default 2026-01-01 00:00:00 UTC), so that relative
// dates and refresh dates can be tested without sleeping.
class ManualClock final : public Clock {
public:
    static constexpr double defaultWallStart = 1767225600;
    explicit ManualClock(double start = 0, double wallStart = defaultWallStart)
        : m_now(start)
        , m_wallOffset(wallStart - start)
    {
    }
    double now() const override { return m_now; }
    double wallTime() const override { return m_now + m_wallOffset; }
    bool isManual() const override { return true; }
    void advance(double seconds) { m_now += seconds; }
    void setNow(double now) { m_now = now; }
    void setWallTime(double secondsSince1970) { m_wallOffset = secondsSince1970 - m_now; }

private:
    double m_now;
    double m_wallOffset;
};

// A scheduled call, kept by the loop until it fires or is cancelled.
class Timer final : public Object {
    VX_OBJECT(Timer)
public:
    // Keeps it from firing (again) and drops its closure at once.
    void cancel()
    {
        m_valid = false;
        if (!m_firing)
            m_action = nullptr;
    }
    bool isValid() const { return m_valid; }
    double fireTime() const { return m_fireTime; }

private:
    friend class RunLoop;
    Timer(double fireTime, double interval, std::function<void()>&& action)
        : m_fireTime(fireTime)
        , m_interval(interval)
        , m_action(std::move(action))
    {
    }
    double m_fireTime;
    double m_interval; // 0 for a one-shot timer
    std::function<void()> m_action;
    bool m_valid { true };
    bool m_firing { false };
};

enum class SocketEvent : uint8_t { None = 0,
    Readable = 1,
    Writable = 2,
    Error = 4 };
inline SocketEvent operator|(SocketEvent a, SocketEvent b) { return SocketEvent(uint8_t(a) | uint8_t(b)); }
inline SocketEvent operator&(SocketEvent a, SocketEvent b) { return SocketEvent(uint8_t(a) & uint8_t(b)); }
inline bool any(SocketEvent e) { return e != SocketEvent::None; }

class RunLoop {
public:
    static RunLoop& current();
    static RunLoop& main();
    // The thread's loop if it has made one, else null (never makes one).
    static RunLoop* currentIfExists();
    bool isCurrent() const;

    // Thread-safe. Tasks run in the order posted, on the loop's thread.
    void post(std::function<void()> task);
    // Posts to this loop from any thread for as long as the loop exists: the
    // poster may outlive it, and then posts nothing and answers false.
    using Poster = std::function<bool(std::function<void()>)>;
    Poster poster() const;

    // Calls the action once after the delay, measured on the loop's clock.
    // Timers due at the same time fire in the order they were scheduled.
    // Destroying the Subscription cancels the timer; release() it to let the
    // call happen without keeping a token.
    Subscription performAfterDelay(double seconds, std::function<void()> action);
    // Calls the action every interval until the Subscription goes.
    Subscription scheduleRepeatingTimer(double interval, std::function<void()> action);

    using SocketCallback = std::function<void(int fd, SocketEvent events)>;
    // Watches a descriptor (one watch per descriptor: a second replaces the
    // first); the callback is told which of the asked events (and Error) it is
    // ready for, until the Subscription goes.
    Subscription watchSocket(int fd, SocketEvent events, SocketCallback callback);
    // Changes the events asked of a watched descriptor.
    void updateSocket(int fd, SocketEvent events);

    // Exceptions: an exception thrown by a task, a timer or a socket callback
    // leaves the running call (run, runUntil, runFor, runUntilIdle) and
    // reaches its caller. Work that had not run yet stays queued, in order,
    // and runs at the next turn of the loop.

    // Runs until stop().
    void run();
    // Runs until the condition holds (checked after every event), stop() is
    // called, or `timeout` seconds pass on the loop's clock. Returns the
    // condition's last answer.
    bool runUntil(const std::function<bool()>& condition, double timeout = std::numeric_limits<double>::infinity());
    // Runs until the date.
    void runUntil(const Date&);
    // Runs for a while on the loop's clock.
    void runFor(double seconds);
    // Handles what is ready now (tasks, due timers, ready sockets) without waiting.
    void runUntilIdle();
    // Ends the innermost run; thread-safe.
    void stop();

    // Driving the loop from another event loop (GLib, Qt, a plain poll()):
    // the host watches eventDescriptor() for readability, wakes at the latest
    // after timeUntilNextTimer() seconds, and then calls runUntilIdle(). The
    // descriptor is readable whenever a task is posted or a watched socket is
    // ready; it stays readable until the loop has handled that work.
    int eventDescriptor() const;
    // Seconds until the earliest timer is due (0 when one is due now, or a
    // task is waiting); infinity when nothing is scheduled.
    double timeUntilNextTimer() const;

    // The loop does not own the clock; null restores the system clock.
    void setClock(Clock*);
    Clock& clock() const { return *m_clock; }
    double now() const { return m_clock->now(); }

    size_t pendingTimerCount() const;
    // Timers the loop still holds, cancelled ones included, for measurements.
    size_t heldTimerCount() const;

    ~RunLoop();

private:
    RunLoop();
    // One pass: tasks, due timers, then sockets waited on for at most maxWait
    // seconds. Returns whether anything ran.
    bool runOnce(double maxWait);
    bool runTasks();
    bool fireDueTimers();
    bool pollSockets(double maxWait);
    double nextTimerDelay() const;
    void wake();
    bool hasPendingTasks() const;
    void unwatchSocket(int fd, uint64_t generation);

    struct Impl;
    std::shared_ptr<Impl> m_impl;
    Clock* m_clock;
};

} // namespace velvox
